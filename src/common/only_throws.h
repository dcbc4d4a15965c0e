#ifndef ORVANE_COMMON_ONLY_THROWS_H
#define ORVANE_COMMON_ONLY_THROWS_H

// Closed exception lists. Many operations admit only a fixed set of exception
// types; anything else leaving them is a broken contract and ends the process
// through std::terminate. Write the list once, next to the operation:
//
//     bool ovNetworkFS::createFile(const char* path) {
//         return detail::onlyThrows<ovFileAccessError, ovNoSuchDirectory,
//                                   ovPermissionDenied>([&] { ... });
//     }

#include <exception>
#include <utility>

namespace detail {

template <class... Allowed>
struct ExceptionFilter;

template <>
struct ExceptionFilter<> {
    [[noreturn]] static void rethrowCurrent() { std::terminate(); }
};

template <class First, class... Rest>
struct ExceptionFilter<First, Rest...> {
    // Called inside a handler: rethrows the exception in flight when it is a
    // First, otherwise hands it on to the rest of the list.
    [[noreturn]] static void rethrowCurrent() {
        try {
            throw;
        } catch (const First&) {
            throw;
        } catch (...) {
            ExceptionFilter<Rest...>::rethrowCurrent();
        }
    }
};

template <class... Allowed, class F>
decltype(auto) onlyThrows(F&& body) {
    try {
        return std::forward<F>(body)();
    } catch (...) {
        ExceptionFilter<Allowed...>::rethrowCurrent();
    }
}

}  // namespace detail

#endif
