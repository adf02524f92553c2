#include "json/json.h"

namespace json {

namespace {

bool is_container(const std::string& value) {
    const jtype kind = value.empty() ? jtype::not_valid : type_of(value.front());
    return kind == jtype::jobject || kind == jtype::jarray;
}

}  // namespace

/// Containers that are being written wait on a stack of our own instead of the machine's. Each value is moved
/// out when it is written; otherwise a deeply nested text would be kept once for every level around it.
std::string jobject::pretty(unsigned indent_level) const {
    std::string text(indent_level, '\t');
    std::vector<std::pair<jobject, std::size_t>> open;  // with the index of the next entry
    const auto begin = [&](jobject container) {
        text += container.array_flag ? '[' : '{';
        open.emplace_back(std::move(container), 0);
    };
    const auto new_line = [&] { text.append(1, '\n').append(indent_level + open.size(), '\t'); };
    const auto end = [&] {
        const auto [container, entries] = std::move(open.back());
        open.pop_back();
        if (entries > 0) new_line();
        text += container.array_flag ? ']' : '}';
    };
    for (begin(*this); !open.empty();) {
        auto& [container, next] = open.back();
        if (next == container.size()) {
            end();
            continue;
        }
        if (next > 0) text += ',';
        new_line();
        const auto [key, value] = std::move(container.data[next++]);
        if (!container.array_flag) text += '"' + key + "\": ";
        if (is_container(value)) {
            begin(parse(value));
        } else {
            text += value;
        }
    }
    return text;
}

}  // namespace json
