// The string type of tarn-info. A std::string with an allocator of its own is instantiated in
// tarn-info's own code, built without exceptions, instead of being taken from the C++ library's
// precompiled std::string, whose exception handling would bring the library's unwinder along
// (about 37 KB of a program that must stay small).
#pragma once

#include <memory>
#include <string>

template <typename T>
struct info_allocator : std::allocator<T> {
    template <typename U>
    struct rebind {
        using other = info_allocator<U>;
    };
    info_allocator() = default;
    template <typename U>
    info_allocator(const info_allocator<U> &) noexcept {}
};

using info_string = std::basic_string<char, std::char_traits<char>, info_allocator<char>>;
