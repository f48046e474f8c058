#include "scheduler.h"

#include <ucontext.h>

#include <cerrno>
#include <utility>

namespace schedules {

namespace {

constexpr std::size_t kStackSize = 256 * 1024;
constexpr int kMostSteps = 3000;

struct Coroutine {
    ucontext_t context = {};
    std::function<void()> body;
    Step next;
    bool started = false;
    bool ended = false;
    int error = 0;
    alignas(16) std::array<char, kStackSize> stack;
};

std::array<Coroutine, kThreads> coroutines;
ucontext_t caller;
Chooser* chooser = nullptr;
Thread current = dispatch;
int steps = 0;

Objects life(Thread thread) {
    return kLife << thread;
}

bool enabled(const Coroutine& coroutine) {
    return coroutine.started && !coroutine.ended &&
           (coroutine.next.available == nullptr || coroutine.next.available() > 0);
}

// Who goes on; kThreads when all have ended.
Thread choose() {
    Choice choice = {{}, 0, current};
    bool all_ended = true;
    std::string waiting;
    for (int thread = 0; thread < kThreads; ++thread) {
        const Coroutine& coroutine = coroutines[thread];
        choice.next[thread] = coroutine.next;
        choice.enabled |= enabled(coroutine) ? 1U << thread : 0U;
        if (coroutine.started && !coroutine.ended) {
            all_ended = false;
            waiting +=
                std::string(waiting.empty() ? "" : ", ") + kLetters[thread] + " at " + coroutine.next.name;
        }
    }
    if (all_ended) {
        return kThreads;
    }
    if (choice.enabled == 0) {
        fail("no thread can go on: " + waiting);
    }
    if (++steps > kMostSteps) {
        fail("the threads do not end: " + waiting);
    }
    return chooser->choose(choice);
}

void go_on() {
    const Thread next = choose();
    const Thread before = std::exchange(current, next);
    if (next == before) {
        return;
    }
    coroutines[before].error = errno;
    swapcontext(&coroutines[before].context, next == kThreads ? &caller : &coroutines[next].context);
    errno = coroutines[before].error;
}

void run_coroutine() {
    const Thread self = current;
    coroutines[self].body();
    point({"end", 0, life(self)});
    coroutines[self].ended = true;
    coroutines[self].body = nullptr;
    go_on();
}

} // namespace

Objects ignored = 0;

bool independent(const Step& one, const Step& other) {
    return (one.writes & (other.reads | other.writes)) == 0 && (one.reads & other.writes) == 0;
}

void execute(const std::function<void()>& body, Chooser& who_chooses) {
    chooser = &who_chooses;
    steps = 0;
    for (Coroutine& coroutine : coroutines) {
        coroutine.started = coroutine.ended = false;
        coroutine.error = 0;
    }
    start(dispatch, body);
    current = choose();
    swapcontext(&caller, &coroutines[current].context);
    chooser = nullptr;
}

bool executing() {
    return chooser != nullptr;
}

Thread running() {
    return current;
}

bool has_ended(Thread thread) {
    return coroutines[thread].ended;
}

void start(Thread thread, const std::function<void()>& body) {
    Coroutine& coroutine = coroutines[thread];
    if (coroutine.started) {
        fail(std::string("a second thread begins as ") + kLetters[thread]);
    }
    coroutine.body = body;
    coroutine.next = {"begin", life(thread), 0};
    coroutine.started = true;
    getcontext(&coroutine.context);
    coroutine.context.uc_stack.ss_sp = coroutine.stack.data();
    coroutine.context.uc_stack.ss_size = coroutine.stack.size();
    coroutine.context.uc_link = nullptr;
    makecontext(&coroutine.context, run_coroutine, 0);
}

void point(const Step& step) {
    Step& next = coroutines[current].next;
    next = step;
    next.reads &= ~ignored;
    next.writes &= ~ignored;
    go_on();
}

} // namespace schedules
