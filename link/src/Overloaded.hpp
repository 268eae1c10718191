#pragma once

namespace kirolink {

/// A visitor out of lambdas.
template <typename... Handlers>
struct Overloaded : Handlers... {
    using Handlers::operator()...;
};
template <typename... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;  // clang 14 does not find it by itself

}  // namespace kirolink
