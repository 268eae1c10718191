#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "kiro/web/FakePubSub.hpp"
#include "kiro/web/PubSubFactory.hpp"

/// What the fuzz targets share.
namespace fuzz {

/// Ends the process when an invariant does not hold, so that the fuzzer keeps the input.
inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "violated: %s\n", what);
    std::abort();
}

/// The process-wide endpoint, which delivers on the publishing thread.
inline const std::shared_ptr<kiro::web::PubSubInterface>& endpoint() {
    static const auto instance = [] {
        kiro::web::PubSubFactory::setPubSubCreationFcn(
            [] { return std::make_shared<kiro::web::test::FakePubSub>(); });
        return kiro::web::PubSubFactory::pubsubInstance();
    }();
    return instance;
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
