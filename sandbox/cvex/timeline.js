"use strict";
const details = JSON.parse(document.getElementById("details").textContent);
const messages = [...document.querySelectorAll("svg.diagram .message")];
const panel = document.querySelector("#detail");
const logLines = [...document.querySelectorAll("#log tr[data-time]")];
let chosen = null;

function element(name, text) {
    const made = document.createElement(name);
    made.textContent = text;
    return made;
}

function show(message) {
    const detail = details[messages.indexOf(message)];
    panel.replaceChildren(element("h2", detail.label), element("p", detail.place));
    if (detail.explanation) {
        panel.append(element("p", detail.explanation));
    }
    for (const [title, text] of detail.documents) {
        panel.append(element("h3", title), element("pre", text));
    }
}

function choose(message) {
    for (const other of messages) {
        other.setAttribute("aria-pressed", other === message);
        other.setAttribute("tabindex", other === message ? "0" : "-1");
    }
    chosen = message;
    show(message);
    showLog(messages.indexOf(message));
}

// Marks the lines that were logged from a message to the next one.
function showLog(index) {
    const end = index + 1 < details.length ? details[index + 1].time : Infinity;
    for (const line of logLines) {
        const time = Number(line.dataset.time);
        line.classList.toggle("near", time >= details[index].time && time < end);
    }
    document.querySelector("#log .near")?.scrollIntoView({ block: "nearest" });
}

function step(message, key) {
    const index = messages.indexOf(message);
    return { ArrowDown: messages[index + 1], ArrowUp: messages[index - 1],
             Home: messages[0], End: messages[messages.length - 1] }[key];
}

for (const message of messages) {
    message.addEventListener("pointerenter", () => show(message));
    message.addEventListener("pointerleave", () => show(chosen));
    message.addEventListener("click", () => choose(message));
    message.addEventListener("focus", () => choose(message));
    message.addEventListener("keydown", event => {
        const next = step(message, event.key);
        if (next) {
            event.preventDefault();
            next.focus();
        }
    });
}
if (messages.length > 0) {
    // What a reader looks for first is what went wrong first.
    const first = messages.find(message => message.classList.contains("failed")) ?? messages[0];
    choose(first);
    first.scrollIntoView({ block: "nearest" });
}
