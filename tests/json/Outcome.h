#pragma once

#include <string>

#include "json/json.h"

/// What `function` returns, the text of the parsing_error that it throws, or which key it misses.
template <typename Function>
std::string OutcomeOf(Function function) {
    try {
        return function();
    } catch (const json::parsing_error& error) {
        return error.what();
    } catch (const json::invalid_key& error) {
        return std::string("missing: ") + error.what();
    }
}

/// Names the rows of a table.
inline const auto nameOf = [](const auto& row) { return std::string(row.param.name); };
