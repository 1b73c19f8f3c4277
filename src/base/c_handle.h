#pragma once

#include <memory>

namespace ox {

namespace detail {
template <auto Destroy>
struct Destroyer {
    template <typename T>
    void operator()(T* object) const {
        Destroy(object);  // NOLINT(cppcoreguidelines-owning-memory): the owner calls this
    }
};
}  // namespace detail

/// Owner of a C library's object that is released by `Destroy(object)`.
template <typename T, auto Destroy>
using CHandle = std::unique_ptr<T, detail::Destroyer<Destroy>>;

}  // namespace ox
