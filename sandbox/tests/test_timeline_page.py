"""The page of cvex timeline --html, in a browser without a window."""

import json
import re
import tempfile
from itertools import combinations

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from test_timeline import Events, timeline, two_failed_logins, write_record

PIXELS_PER_SECOND = 150


@pytest.fixture(scope="module")
def browser():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    with tempfile.TemporaryDirectory(prefix="cvpage-") as profile:
        for argument in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                         "--disable-background-networking", "--disable-component-update", "--disable-sync",
                         "--disable-dev-shm-usage", f"--user-data-dir={profile}", "--window-size=1500,1000"):
            options.add_argument(argument)
        driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        yield driver
        driver.quit()


@pytest.fixture
def page(browser, tmp_path):
    """Opens the page of a record; afterwards nothing may stand in the browser's console, and nothing but the page
    may have been loaded."""
    def open_page(events):
        file = tmp_path / "page.html"
        result = timeline(write_record(tmp_path / "record.jsonl", events), "--html", file)
        assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
        browser.get(file.as_uri())
        return browser

    yield open_page
    assert browser.get_log("browser") == []
    assert browser.execute_script("return performance.getEntriesByType('resource').map(entry => entry.name)") == []


def texts(driver, selector):
    return [element.text for element in driver.find_elements(By.CSS_SELECTOR, selector)]


def messages(driver):
    return driver.find_elements(By.CSS_SELECTOR, "svg.diagram .message")


def boxes(driver, selector):
    """What is drawn, each with its box as (left, top, right, bottom) in the diagram."""
    return driver.execute_script("""
        const origin = document.querySelector("svg.diagram").getBoundingClientRect();
        return [...document.querySelectorAll(arguments[0])].map(element => {
            const box = element.getBoundingClientRect();
            return [element.getAttribute("class") + " " + element.textContent, box.left - origin.left,
                    box.top - origin.top, box.right - origin.left, box.bottom - origin.top];
        });""", selector)


def overlap(one, other):
    return one[1] < other[3] and other[1] < one[3] and one[2] < other[4] and other[2] < one[4]


def detail(driver):
    return driver.find_element(By.ID, "detail").text


def test_messages_stand_in_order(page):
    driver = page(two_failed_logins())
    assert texts(driver, "svg.diagram .label") == [
        "start_cloud_registration #1", "connect, try 1", "connect: status 7", "connect, try 2",
        "connect: try later", "connect, try 3", "connect: answer", "register_box, try 1",
        "register_box: answer", "cloud_registration_done", "reply #1: ok", "retry_cloud_registration #2",
        "reply #2: error_other"]
    assert texts(driver, "svg.diagram .time") == [
        "0.050", "0.052", "0.053", "1.054", "1.055", "2.056", "2.300", "2.301", "2.302", "2.303", "2.304", "8.500",
        "8.501"]
    arrows = boxes(driver, "svg.diagram .arrow")
    assert len(arrows) == 13
    assert all(first[2] < second[2] for first, second in zip(arrows, arrows[1:]))
    times = boxes(driver, "svg.diagram .time")
    assert all(time[2] < arrow[2] < time[4] for time, arrow in zip(times, arrows))
    failed = [element.get_attribute("aria-label").split(",")[0]
              for element in driver.find_elements(By.CSS_SELECTOR, "svg.diagram .failed")]
    assert failed == ["connect: status 7", "connect: try later", "reply #2: error_other"]


def test_usual_labels_are_whole(page):
    events = Events()
    for number, method in enumerate(["connect", "get_device_token", "register_box"], 1):
        events.request(1, number, method)
        events.response(1, number, method, **[{"status": 28, "body": ""}, {"status": 503, "body": ""}, {}][number - 1])
    for number, result in enumerate(["ok", "error_in_progress", "error_invalid_arguments"], 1):
        events.command(1, number, "start_cloud_registration")
        events.reply(1, number, json.dumps({"result": result}))
    labels = texts(page(events), "svg.diagram .label")
    assert "get_device_token: status 503" in labels
    assert "reply #3: error_invalid_arguments" in labels
    assert [label for label in labels if "…" in label] == []


def test_arrows_lead_from_lane_to_lane(page):
    driver = page(two_failed_logins())
    client, daemon, module, cloud = [box[1] / 2 + box[3] / 2 for box in boxes(driver, "svg.diagram .lane")]
    assert client < daemon < module < cloud

    def lanes(index):
        _, left, _, right, _ = boxes(driver, "svg.diagram .arrow")[index]
        (_, tip_left, _, tip_right, _) = boxes(driver, "svg.diagram .tip")[index]
        near = [min([client, daemon, module, cloud], key=lambda lane: abs(lane - x)) for x in (left, right)]
        return near if tip_right >= right else near[::-1]

    assert lanes(0) == [client, module]
    assert lanes(1) == [module, cloud]
    assert lanes(2) == [cloud, module]
    assert lanes(9) == lanes(10) == [module, client]


def crowd():
    """Many messages at one time, names of every length and script, two handlers' requests at once."""
    events = Events()
    for number in range(1, 31):
        events.command(1, number, "w" * number * 8).request(1, number, "M" * number)
    for number in range(1, 31):
        events.response(1, number, "M" * number, body="")
        events.reply(1, number, '{"result": "' + "界" * number + '"}')
    return events.publish(1, "{}", name="名" * 259)


def refusals():
    return (Events()
            .command(1, 1, "start_cloud_registration")
            .refused(1, "build", method="get_device_token_of_a_very_long_name")
            .request(3, 1, "get_device_token").refused(3, "request", request=1, method="get_device_token")
            .publish(3, "{}").refused(3, "publish", name="cloud_registration_done")
            .reply(3, 1, '{"result": "error_internal"}').refused(3, "reply", request_id=1))


def long_waits():
    return (Events()
            .command(100000, 1, "start_cloud_registration")
            .request(100000, 1, "connect").response(100010.001, 1, "connect", status=28, error="timed out", body="")
            .command(100015, 2, "start_cloud_registration")
            .reply(100015, 2, '{"result": "error_in_progress"}', thread="dispatch")
            .request(100071, 2, "connect").log(100090, "stopping"))


@pytest.mark.parametrize("events", [two_failed_logins, crowd, refusals, long_waits, Events],
                         ids=lambda events: events.__name__)
def test_nothing_overlaps(page, events):
    driver = page(events())
    words = boxes(driver, "svg.diagram text")
    arrows = boxes(driver, "svg.diagram .arrow, svg.diagram .tip, svg.diagram .cross")
    bars = boxes(driver, "svg.diagram .bar")
    assert (words != []) == (events() != [])
    assert [pair for pair in combinations(words, 2) if overlap(*pair)] == []
    assert [(word, other) for word in words for other in arrows + bars if overlap(word, other)] == []
    assert [pair for pair in combinations(bars, 2) if overlap(*pair)] == []
    assert [pair for pair in combinations(arrows, 2)
            if overlap(*pair) and {pair[0][0].split()[0], pair[1][0].split()[0]} != {"arrow", "tip"}] == []
    (_, _, _, right, bottom), = boxes(driver, "svg.diagram")
    assert [box for box in words + arrows + bars if box[1] < 0 or box[2] < 0 or box[3] > right or box[4] > bottom] == []


def test_pauses_are_to_scale_and_silence_is_cut(page):
    driver = page(two_failed_logins())
    heights = {name: bottom - top for name, _, top, _, bottom in boxes(driver, "svg.diagram .bar")}
    assert heights["bar pause pause 1.00 s"] == pytest.approx(1.001 * PIXELS_PER_SECOND, abs=0.5)
    assert texts(driver, "svg.diagram .length").count("pause 1.00 s") == 2
    # What is too short for its label is stretched, and the axis says so; what is long and idle is cut, with its length.
    kinds = [element.get_attribute("class") for element in driver.find_elements(By.CSS_SELECTOR, "svg.diagram .axis")]
    assert [kinds.count(kind) for kind in ("axis", "axis stretched", "axis broken")] == [2, 9, 1]
    assert "6.20 s" in texts(driver, "svg.diagram .length")
    assert f"1 s = {PIXELS_PER_SECOND} px" in driver.find_element(By.CSS_SELECTOR, ".legend").text
    solid = boxes(driver, "svg.diagram line.axis:not(.stretched)")
    assert [bottom - top for _, _, top, _, bottom in solid] == \
        pytest.approx([1.001 * PIXELS_PER_SECOND] * 2, abs=0.5)


def test_a_message_shows_its_document(page):
    driver = page(two_failed_logins())
    drawn = messages(driver)
    # The first failure is chosen at the start, and the lines logged from there on are marked.
    assert detail(driver).startswith("connect: status 7\n0.053 s, cloud to library, callback thread\nhttp://127.0.0.1:1/")

    ActionChains(driver).move_to_element(drawn[4].find_element(By.CSS_SELECTOR, ".label")).perform()
    assert detail(driver).startswith("connect: try later\n1.055 s, cloud to library, callback thread\n")
    assert '"message": "try later"' in detail(driver)
    assert '"status": 0' in detail(driver)
    ActionChains(driver).move_to_element(driver.find_element(By.TAG_NAME, "h1")).perform()
    assert detail(driver).startswith("connect: status 7\n")
    drawn[0].find_element(By.CSS_SELECTOR, ".label").click()
    assert '"token": "a-token"' in detail(driver)
    assert texts(driver, "#log .near td:last-child") == [
        "[file.cpp:1][function()]: Received start_cloud_registration message"]

    drawn[1].find_element(By.CSS_SELECTOR, ".label").click()
    ActionChains(driver).move_to_element(driver.find_element(By.TAG_NAME, "h1")).perform()
    assert detail(driver).startswith("connect, try 1\n")
    assert [message.get_attribute("aria-pressed") for message in drawn] == ["false", "true"] + ["false"] * 11


def test_the_keyboard_reaches_every_message(page):
    driver = page(two_failed_logins())
    drawn = messages(driver)
    # The diagram's pane scrolls and may take the focus first.
    for _ in range(3):
        ActionChains(driver).send_keys(Keys.TAB).perform()
        if driver.switch_to.active_element == drawn[2]:
            break
    for key, expected in [(Keys.HOME, 0), (Keys.ARROW_DOWN, 1), (Keys.ARROW_DOWN, 2), (Keys.ARROW_UP, 1), (Keys.END, 12),
                          (Keys.ARROW_DOWN, 12), (Keys.HOME, 0), (Keys.ARROW_UP, 0)]:
        driver.switch_to.active_element.send_keys(key)
        assert driver.switch_to.active_element == drawn[expected]
        assert detail(driver).startswith(texts(driver, "svg.diagram .label")[expected] + "\n")
    assert drawn[0].get_attribute("aria-label") == \
        "start_cloud_registration #1, 0.050 s, client to library, dispatch thread"


def test_a_hostile_record_is_shown_as_text(page):
    attack = "</script><script>document.title = 'taken'</script><!--<script>"
    events = (Events().command(1, 1, "<b onclick=x>&amp;\"'", json.dumps({"token": attack}))
              .log(1, attack).reply(1, 1, json.dumps({"result": "error", "reason": attack})))
    driver = page(events)
    assert driver.title == f"Record: error: {attack}"
    assert len(messages(driver)) == 2
    assert texts(driver, "svg.diagram .label")[0] == "<b onclick=x>&amp;\"' #1"
    assert attack in detail(driver)
    assert attack in driver.find_element(By.TAG_NAME, "table").text


def test_the_log_breaks_no_word_beside_its_lines(page):
    driver = page(Events().log(1, "a long line " * 100))
    heights = driver.execute_script("""
        return [...document.querySelectorAll("th, td")].map(cell => {
            const range = document.createRange();
            range.selectNodeContents(cell);
            return range.getBoundingClientRect().height / parseFloat(getComputedStyle(cell).lineHeight);
        });""")
    assert len(heights) == 8
    assert max(heights[:7]) < 1.5
    assert heights[7] > 3


def test_a_document_nested_without_end_is_left_as_text(page):
    body = "[" * 100000 + "]" * 100000
    driver = page(Events().response(1, 1, "connect", body=body))
    assert texts(driver, "svg.diagram .label") == ["connect: not JSON"]
    assert texts(driver, "#detail h3") == ["LINE OF THE RECORD"]


def contrast(driver, selector):
    """The contrast of the text with the page as the accessibility guidelines count it; 4.5 is enough to read."""
    def luminance(color):
        red, green, blue = [int(part) / 255 for part in re.findall(r"\d+", color)[:3]]
        parts = [part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4 for part in (red, green, blue)]
        return 0.2126 * parts[0] + 0.7152 * parts[1] + 0.0722 * parts[2]

    text, paper = driver.execute_script("""
        return [getComputedStyle(document.querySelector(arguments[0])).fill,
                getComputedStyle(document.body).backgroundColor];""", selector)
    light, dark = sorted([luminance(text), luminance(paper)], reverse=True)
    return (light + 0.05) / (dark + 0.05), luminance(paper)


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_both_schemes_are_readable(page, browser, scheme):
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia",
                            {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
    driver = page(two_failed_logins())
    for selector in (".time", ".length", ".command .label", ".request .label", ".answer:not(.failed) .label",
                     "svg.diagram .failed .label", "svg.diagram .published .label", "svg.head text"):
        ratio, paper = contrast(driver, selector)
        assert ratio >= 4.5, selector
        assert (paper > 0.5) == (scheme == "light")


def test_a_narrow_window_shows_every_lane(page, browser):
    browser.set_window_size(700, 900)
    try:
        driver = page(two_failed_logins())
        width = driver.execute_script("return document.documentElement.clientWidth")
        heads = driver.execute_script(
            "return [...document.querySelectorAll('svg.head rect')].map(head => head.getBoundingClientRect().right)")
        assert len(heads) == 4
        assert max(heads) <= width
        assert driver.execute_script("return document.querySelector('main').scrollWidth <= "
                                     "document.querySelector('main').clientWidth")
    finally:
        browser.set_window_size(1500, 1000)


def test_the_title_says_what_ran_and_how_it_ended(page, tmp_path):
    assert page(two_failed_logins()).title == "Record: registered"
    failed = Events().command(1, 1, "start_cloud_registration").reply(
        2, 1, '{"result": "error_connect", "reason": "unknown partner token"}')
    assert page(failed).title == "Record: error_connect: unknown partner token"
