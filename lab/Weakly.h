#pragma once

#include <memory>

namespace lab {

/// A completion handler that calls a method of `object`, or nothing once the object is gone. `object` must
/// belong to a shared_ptr.
/// @param kept what the operation still points into: lives as long as the handler
template <typename Object, typename Method, typename... Kept>
auto Weakly(Object* object, Method method, Kept... kept) {
    return [weak = object->weak_from_this(), method, kept...](const auto&... results) {
        if (auto self = weak.lock()) (self.get()->*method)(results...);
    };
}

}  // namespace lab
