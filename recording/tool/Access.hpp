#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Recordings.hpp"
#include "secret/Secrets.hpp"
#include "served/Http.hpp"

namespace recording_tool {

/// What is looked at of an HTTP request. The views are valid as long as what they were taken from.
struct Request {
    std::string_view method;
    std::string_view target;
    std::optional<std::string_view> host;
    std::optional<std::string_view> origin;
    std::optional<std::string_view> authorization;
    std::optional<std::string_view> range;
    bool isAmbiguous = false;  ///< it has one of these fields twice, or a Transfer-Encoding
    std::string_view body;
    bool isKeptAlive = false;  ///< the client wants to send another
};

/// What is answered: `body`, or a part of a recording. The views are valid as long as what was
/// asked.
struct Answer {
    unsigned status = 400;
    std::string_view body{};  ///< for a refusal, the reason
    std::string fields{};     ///< besides the common ones, each with its line end
    std::string_view type = served::kPlainText;
    const kirorecording::Source* source = nullptr;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

/// Decides who gets in and what is served: the page to everybody who finds it, recordings with the
/// token only. Knows neither sockets nor a parser, and no files but those that it was given.
class Access {
  public:
    using TimePoint = secret::Secrets::TimePoint;

    /// The largest part of a recording that is answered; who wants more asks again.
    static constexpr std::uint64_t kMostAtOnce = std::uint64_t{8} << 20U;

    /// REQUIRES: `recordings` outlive this.
    Access(std::span<const ServedFile> recordings, std::uint16_t port);

    [[nodiscard]] Answer decide(const Request& request, TimePoint now);

    /// What shows the recordings, whoever opens it how often.
    [[nodiscard]] std::string link() const;
    /// The same for one browser, within a minute.
    [[nodiscard]] std::string singleUseLink(TimePoint now);
    /// The header fields that every answer carries, each with its line end.
    [[nodiscard]] static std::string commonFields();

  private:
    [[nodiscard]] std::optional<Answer> refuse(const Request& request) const;
    [[nodiscard]] std::optional<Answer> refuseOrigin(const Request& request) const;
    [[nodiscard]] Answer exchange(const Request& request, TimePoint now);
    [[nodiscard]] Answer serveRecording(const Request& request) const;
    [[nodiscard]] std::string linkWith(const std::string& secret) const;

    const std::span<const ServedFile> fRecordings;
    std::vector<std::string> fHosts;
    secret::Secrets fSecrets;
};

}  // namespace recording_tool
