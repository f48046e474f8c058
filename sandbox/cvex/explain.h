// cvex explain: says what a log or a record means, or prints it without its tokens.
#ifndef CVEX_EXPLAIN_H
#define CVEX_EXPLAIN_H

#include <istream>
#include <ostream>

namespace cvex {

/// Reads a log of the daemon, or a record, line by line, and writes the lines that matter with what they mean
/// and what to do.
void explain(std::istream& input, std::ostream& output);

/// Copies a log or a record with "***" in place of each token that a document or a line in it names.
void mask_tokens(std::istream& input, std::ostream& output);

} // namespace cvex

#endif
