#pragma once

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "client/EcgCheck.hpp"
#include "client/QuakeCheck.hpp"

namespace monitor::client {

struct ReferenceData;
class Findings;

/// Looks at everything that a client draws, in the order of drawing: that no command is missing
/// or out of its place, that the objects are there, and that they show what the data files say.
/// One thread.
class Checker {
  public:
    /// REQUIRES: both outlive this.
    Checker(const ReferenceData& data, Findings& findings);

    /// Looks at the next command. `block` is what its "data" names, null when it names none.
    void apply(const boost::json::object& command, const std::string* block);

    struct Frame {
        std::uint64_t number = 0;
        std::uint64_t attempt = 0;
    };
    /// Checks that the frame shows everything it must.
    Frame endFrame();

    /// The client begins anew, and the frame that has ended is to be sent again, whole.
    void expectRepeat();

    /// See `QuakeCheck::pick`, for the frame that has ended.
    QuakeCheck::Place pick() { return fQuakes.pick(fFrame.number); }

  private:
    /// The table row of an object that the figures consist of.
    struct Expected;
    static const Expected* findExpected(const std::string& name);

    void checkSequence(const boost::json::object& command);
    void dispatch(const std::string& name, const boost::json::object& command,
                  const std::string* block);
    void beginFrame(const boost::json::object& command);
    void create(const boost::json::object& command);
    void setData(const std::string& object, const boost::json::object& command, bool append,
                 const std::string* block);
    void setProperty(const std::string& name, const std::string& object,
                     const boost::json::object& command);
    /// The name of the object whose handle stands under `key`.
    [[nodiscard]] const std::string& nameOf(const boost::json::object& command,
                                            const char* key) const;

    Findings& fFindings;
    EcgCheck fEcg;
    QuakeCheck fQuakes;
    std::uint64_t fSequence = 0;
    Frame fFrame;
    bool fInFrame = false;
    bool fExpectRepeat = false;
    bool fExpectWhole = true;
    std::uint64_t fNextFrame = 0;
    /// Names of the objects by their handles' texts.
    std::map<std::string, std::string> fObjects;
};

}  // namespace monitor::client
