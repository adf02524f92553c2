#pragma once

#include <memory>

namespace lab {

/// A completion handler that calls a method of `object`, or does nothing once the object is gone. `object`
/// must belong to a shared_ptr.
/// @param kept buffers of the operation, which live as long as the handler
template <typename Object, typename Method, typename... Kept>
auto Weakly(Object* object, Method method, Kept... kept) {
    return [weak = object->weak_from_this(), method, kept...](const auto&... results) {
        if (auto self = weak.lock()) (self.get()->*method)(results...);
    };
}

}  // namespace lab
