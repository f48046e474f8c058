#ifndef COMMON_MAILBOX_H
#define COMMON_MAILBOX_H

#include <cerrno>
#include <deque>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

namespace sandbox {

/// A queue into a thread that waits in poll(): any thread puts items in, one thread takes them out.
/// After close() no item is accepted any more; those accepted before can still be taken.
template <typename Item>
class Mailbox {
public:
    Mailbox() : descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (descriptor == -1) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }
    ~Mailbox() {
        ::close(descriptor);
    }
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    /// Readable while there is an item to take or the mailbox is closed.
    int fd() const {
        return descriptor;
    }

    /// False when the mailbox is closed; the item is then untouched.
    bool put(Item&& item) {
        const std::lock_guard lock(mutex);
        if (closed) {
            return false;
        }
        items.push_back(std::move(item));
        eventfd_write(descriptor, 1);
        return true;
    }

    std::size_t size() const {
        const std::lock_guard lock(mutex);
        return items.size();
    }

    std::optional<Item> take() {
        const std::lock_guard lock(mutex);
        if (items.empty()) {
            return std::nullopt;
        }
        std::optional<Item> item(std::move(items.front()));
        items.pop_front();
        if (items.empty() && !closed) {
            eventfd_t count = 0;
            eventfd_read(descriptor, &count);
        }
        return item;
    }

    void close() {
        const std::lock_guard lock(mutex);
        closed = true;
        eventfd_write(descriptor, 1);
    }

    /// True once the mailbox is closed and every item is taken.
    bool finished() const {
        const std::lock_guard lock(mutex);
        return closed && items.empty();
    }

private:
    mutable std::mutex mutex;
    std::deque<Item> items;
    bool closed = false;
    int descriptor;
};

} // namespace sandbox

#endif
