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

    /// A "pick" event for the frame that has ended: see `QuakeCheck::pick`.
    [[nodiscard]] boost::json::object pick();

  private:
    void checkSequence(const boost::json::object& command);
    void dispatch(const std::string& name, const boost::json::object& command,
                  const std::string* block);
    void beginFrame(const boost::json::object& command);
    void create(const boost::json::object& command);
    void setProperties(const std::string& target, const boost::json::object& properties);
    void setData(const std::string& target, const boost::json::object& command,
                 const std::string* block);
    /// The name of the object whose number stands under `key`.
    [[nodiscard]] const std::string& nameOf(const boost::json::object& command,
                                            const char* key) const;
    [[nodiscard]] std::uint64_t idOf(const std::string& name) const;

    Findings& fFindings;
    EcgCheck fEcg;
    QuakeCheck fQuakes;
    std::uint64_t fSequence = 0;
    Frame fFrame;
    bool fInFrame = false;
    bool fExpectRepeat = false;
    bool fExpectWhole = true;
    std::uint64_t fNextFrame = 0;
    /// Names of the objects by their numbers: "ecg", "ecg.axes", "ecg.axes.line", ...
    std::map<std::uint64_t, std::string> fObjects;
};

}  // namespace monitor::client
