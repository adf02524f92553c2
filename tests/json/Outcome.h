#pragma once

#include <string>

#include "json/reader.h"

/// What `function` returns, or the text of the parsing_error that it throws.
template <typename Function>
std::string OutcomeOf(Function function) {
    try {
        return function();
    } catch (const json::parsing_error& error) {
        return error.what();
    }
}

/// Names the rows of a table.
inline const auto nameOf = [](const auto& row) { return std::string(row.param.name); };
