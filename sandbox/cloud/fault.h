#ifndef CLOUD_FAULT_H
#define CLOUD_FAULT_H

#include <list>
#include <optional>
#include <string>
#include <vector>

namespace cloud {

enum class FaultKind {
    error,
    error_plain,
    error_number,
    status,
    empty,
    text,
    result_empty,
    result_number,
    delay,
    drop,
    silence,
    oversized,
};

/// What goes wrong with one request.
struct Fault {
    FaultKind kind;
    /// What the kind needs to know: a text, or a decimal number in range; empty for a kind without argument.
    std::string argument;
    /// Whether the cloud does what the request asks for, although the requester may not learn of it.
    bool is_carried_out;
    /// KIND or KIND:ARGUMENT, as it was given.
    std::string text;
};

/// The forms of a fault and what each kind does, for help texts.
std::string describe_faults();

/// The faults that still wait for requests. For one thread at a time.
class FaultPlan {
public:
    /// Adds METHOD[*COUNT]=KIND[:ARGUMENT] behind the others of its method: the next COUNT requests of the
    /// method that no earlier fault takes, or all of them. Throws std::invalid_argument with the reason.
    void add(const std::string& text);

    /// The fault for a request that has come.
    std::optional<Fault> take(const std::string& method);

    void clear();

    /// The faults in the form that add() reads, with the counts that are left.
    std::vector<std::string> left() const;

private:
    struct Entry {
        std::string method;
        /// Nothing for all requests.
        std::optional<unsigned> count;
        Fault fault;
    };

    std::list<Entry> entries;
};

} // namespace cloud

#endif
