#include "Surroundings.hpp"

#include <string>

#include "secret/RandomHex.hpp"

namespace kirolink {

Surroundings Surroundings::real() {
    using namespace std::chrono;
    return {[] { return steady_clock::now(); },
            [] { return duration_cast<microseconds>(system_clock::now().time_since_epoch()); },
            [] { return std::stoull(secret::randomHex(8), nullptr, 16); }};
}

}  // namespace kirolink
