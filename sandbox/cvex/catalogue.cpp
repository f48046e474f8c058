#include "cvex/catalogue.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <vector>

#include "embedded.h"

namespace cvex {

namespace {

/// A row of a table whose second column holds a text, "…" for what is put in.
struct Row {
    /// The results of a reason, separated by ", ", or the level of a line.
    std::string head;
    std::string pattern;
    Advice advice;
    bool is_line;
};

const std::string placeholder = "…";

/// The cells of a table's row without the marks of Markdown.
std::vector<std::string> cells_of(const std::string& row) {
    std::vector<std::string> cells;
    std::istringstream stream(row.substr(1));
    for (std::string cell; std::getline(stream, cell, '|');) {
        cell.erase(std::remove(cell.begin(), cell.end(), '`'), cell.end());
        cell.erase(std::remove(cell.begin(), cell.end(), '*'), cell.end());
        const std::size_t begin = cell.find_first_not_of(' ');
        const std::size_t end = cell.find_last_not_of(' ');
        cells.push_back(begin == std::string::npos ? "" : cell.substr(begin, end + 1 - begin));
    }
    return cells;
}

std::vector<Row> read_page() {
    std::vector<Row> rows;
    std::istringstream page{std::string(embedded::troubleshooting_md)};
    std::string kind;
    for (std::string line; std::getline(page, line);) {
        if (line.empty() || line[0] != '|') {
            kind.clear();
            continue;
        }
        const std::vector<std::string> cells = cells_of(line);
        if (kind.empty()) {
            kind = cells[0];
        } else if ((kind == "Result" || kind == "Level") && cells.size() >= 4 &&
                   cells[0].find("---") == std::string::npos) {
            const bool is_line = kind == "Level";
            rows.push_back(
                {cells[0], cells[1], {cells[2], cells[3], is_line ? std::stoi(cells[0]) : 0}, is_line});
        }
    }
    return rows;
}

const std::vector<Row>& rows() {
    static const std::vector<Row> all = read_page();
    return all;
}

/// Where the pattern's fixed parts stand in this order in the text, the first one at `begin` or behind it.
bool matches(const std::string& pattern, const std::string& text, bool from_begin) {
    std::size_t at = 0;
    std::size_t begin = 0;
    bool is_first = true;
    for (;;) {
        const std::size_t end = pattern.find(placeholder, begin);
        const std::string part = pattern.substr(begin, end - begin);
        const std::size_t found = text.find(part, at);
        if (found == std::string::npos || (is_first && from_begin && found != 0)) {
            return false;
        }
        at = found + part.size();
        if (end == std::string::npos) {
            return part.empty() || at == text.size();
        }
        begin = end + placeholder.size();
        is_first = false;
    }
}

/// How much of the pattern is fixed.
std::size_t fixed_length(const std::string& pattern) {
    std::size_t length = pattern.size();
    for (std::size_t at = 0; (at = pattern.find(placeholder, at)) != std::string::npos;
         at += placeholder.size()) {
        length -= placeholder.size();
    }
    return length;
}

/// The row with the most fixed text of those that match.
template <typename Matches>
std::optional<Advice> best_row(Matches does_match) {
    const Row* best = nullptr;
    for (const Row& row : rows()) {
        if (does_match(row) && (best == nullptr || fixed_length(row.pattern) > fixed_length(best->pattern))) {
            best = &row;
        }
    }
    return best != nullptr ? std::optional(best->advice) : std::nullopt;
}

} // namespace

std::optional<Advice> advice_for_reply(const std::string& result, const std::string& reason) {
    return best_row([&](const Row& row) {
        return !row.is_line && (", " + row.head + ", ").find(", " + result + ", ") != std::string::npos &&
               matches(row.pattern, reason, true);
    });
}

std::optional<Advice> advice_for_line(const std::string& line) {
    return best_row([&](const Row& row) {
        return row.is_line && row.pattern != placeholder && matches(row.pattern, line, false);
    });
}

} // namespace cvex
