#include "search.h"

#include <algorithm>

namespace schedules {

namespace {

unsigned int bit(int thread) {
    return 1U << thread;
}

Thread lowest(unsigned int threads) {
    int thread = 0;
    while ((threads & bit(thread)) == 0) {
        ++thread;
    }
    return static_cast<Thread>(thread);
}

} // namespace

Thread Search::choose(const Choice& choice) {
    if (depth == count) {
        begin_node(choice);
    }
    Node& node = nodes[depth];
    if (node.enabled != choice.enabled) {
        fail("the execution differs from the one before, though its schedule does not");
    }
    const Step& step = choice.next[node.chosen];
    node.next = choice.next;
    node.spare = step.available != nullptr ? step.available() - 1 : 0;
    ++depth;
    return node.chosen;
}

void Search::begin_node(const Choice& choice) {
    Node& node = nodes[count];
    node.enabled = choice.enabled;
    node.sleep = node.done = 0;
    if (count > 0) {
        const Node& before = nodes[count - 1];
        for (int thread = 0; thread < kThreads; ++thread) {
            const bool asleep = ((before.sleep | before.done) & bit(thread)) != 0;
            if (asleep && independent(before.next[thread], before.next[before.chosen])) {
                node.sleep |= bit(thread);
            }
        }
    }
    unsigned int awake = node.enabled & ~node.sleep;
    if (awake == 0) {
        // Run to the end all the same: what was begun has to be cleaned up.
        cut = std::min(cut, depth);
        awake = node.enabled;
    }
    node.chosen = (awake & bit(choice.last)) != 0 ? choice.last : lowest(awake);
    node.backtrack = bit(node.chosen);
    ++count;
}

bool Search::next_execution() {
    if (depth > 0) {
        ++executions;
        repeated += cut != SIZE_MAX ? 1 : 0;
        for (std::size_t step = fresh; step < std::min(depth, cut); ++step) {
            find_clock(step);
            find_races(step);
        }
        for (; count > 0; --count) {
            Node& node = nodes[count - 1];
            node.done |= bit(node.chosen);
            const unsigned int left = node.backtrack & ~node.done & ~node.sleep;
            if (left != 0) {
                node.chosen = lowest(left);
                break;
            }
        }
        if (count == 0) {
            return false;
        }
        fresh = count - 1;
    }
    depth = 0;
    cut = SIZE_MAX;
    return true;
}

void Search::find_clock(std::size_t step) {
    Node& node = nodes[step];
    node.clock = {};
    for (std::size_t earlier = 0; earlier < step; ++earlier) {
        const Node& other = nodes[earlier];
        if (other.chosen == node.chosen || !independent(other.next[other.chosen], node.next[node.chosen])) {
            for (int thread = 0; thread < kThreads; ++thread) {
                node.clock[thread] = std::max(node.clock[thread], other.clock[thread]);
            }
        }
    }
    ++node.clock[node.chosen];
}

// Finds the earlier steps that this one depends on with no other step between, and whose order can be the
// other way round.
void Search::find_races(std::size_t step) {
    const Node& node = nodes[step];
    const Step& what = node.next[node.chosen];
    std::array<int, kThreads> covered = {};
    for (std::size_t earlier = step; earlier-- > 0;) {
        const Node& other = nodes[earlier];
        const Step& what_other = other.next[other.chosen];
        const bool same = other.chosen == node.chosen;
        if (!same && independent(what_other, what)) {
            continue;
        }
        const bool waited_for = (what_other.writes & what.waits) != 0 && node.spare == 0;
        if (other.clock[other.chosen] > covered[other.chosen] && !same && !waited_for) {
            add_reversal(earlier, step);
        }
        for (int thread = 0; thread < kThreads; ++thread) {
            covered[thread] = std::max(covered[thread], other.clock[thread]);
        }
    }
}

// Sees to it that `step`, and what between the two does not follow from `first`, is tried before `first`.
void Search::add_reversal(std::size_t first, std::size_t step) {
    unsigned int begun = 0;
    unsigned int initials = 0;
    for (std::size_t next = first + 1; next <= step; ++next) {
        if (next != step && happens_before(first, next)) {
            continue;
        }
        const Thread thread = nodes[next].chosen;
        bool initial = (begun & bit(thread)) == 0;
        for (std::size_t earlier = first + 1; earlier < next && initial; ++earlier) {
            initial = happens_before(first, earlier) || !happens_before(earlier, next);
        }
        initials |= initial ? bit(thread) : 0U;
        begun |= bit(thread);
    }
    Node& node = nodes[first];
    initials &= node.enabled;
    if ((initials & (node.backtrack | node.done)) == 0 && initials != 0) {
        const Thread thread = nodes[step].chosen;
        node.backtrack |= (initials & bit(thread)) != 0 ? bit(thread) : bit(lowest(initials));
    }
}

std::string Search::schedule() const {
    std::string text;
    for (std::size_t step = 0; step < depth;) {
        const Thread thread = nodes[step].chosen;
        std::size_t length = 0;
        for (; step < depth && nodes[step].chosen == thread; ++step) {
            ++length;
        }
        text += std::to_string(length) + kLetters[thread];
    }
    return text;
}

} // namespace schedules
