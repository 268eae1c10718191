#pragma once

#include <gtest/gtest.h>

#include "Frame.hpp"
#include "World.hpp"

namespace link_test {

inline constexpr std::size_t kMiB = std::size_t{1} << 20U;

/// What tests of both ends begin with.
class Ends : public testing::Test {
  protected:
    /// What a test listens with is gone by then.
    ~Ends() override { world.network.onMessage = {}; }
    /// An engine and gateways that have joined.
    void join(const std::vector<std::string>& names,
              EngineEnd::Settings settings = TestEngine::usual()) {
        world.start(std::move(settings));
        for (const auto& name : names) world.add(name);
        world.run(milliseconds(500));
        for (const auto& name : names) ASSERT_TRUE(gateway(name).isJoined);
    }
    TestGateway& gateway(const std::string& name) { return *world.gateways.at(name); }
    TestEngine& engine() { return *world.engine; }
    EngineEnd::Statistics statistics() { return engine().end->statistics(); }

    World world;
};

/// A gateway that says what a test wants.
class OddGateway {
  public:
    explicit OddGateway(World& world) : fWorld(world) {
        world.network.onMessage = [this](const std::string& subject, const std::string& bytes) {
            if (subject.ends_with("beat")) fEpoch = readFrame(bytes)->header.epoch;
            if (!subject.ends_with("to.odd")) return;
            bytesGot += bytes.size();
            ++framesGot;
            fWorld.network.now += takes;
        };
        say(frame::Hello{"http://odd"});
        world.run(milliseconds(400));
    }
    void say(const frame::Body& body, std::uint64_t number = 1) {
        const bool isHello = std::holds_alternative<frame::Hello>(body);
        fWorld.network.inject("kiroweb.s.from.odd",
                              writeFrame({isHello ? 0 : fEpoch, 7, number}, body));
    }
    std::size_t bytesGot = 0;
    std::size_t framesGot = 0;
    milliseconds takes{0};  ///< to say something to it

  private:
    World& fWorld;
    std::uint64_t fEpoch = 0;
};

}  // namespace link_test
