#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/system/error_code.hpp>
#include <optional>
#include <string>

#include "AccessPolicy.hpp"

/// Between the texts of HTTP and the access policy: a parsed request is read, an answer written.
/// No sockets, no state. Any thread.
namespace kirogateway {

using RequestMessage = boost::beast::http::request<boost::beast::http::string_body>;

/// What `message` asks for; its header is enough. The views are valid as long as `message` is
/// neither changed nor moved.
[[nodiscard]] Request requestOf(const RequestMessage& message);

/// The refusal of a request that the parser gave up with `error`; none if there was no request,
/// so that the connection ends without an answer.
[[nodiscard]] std::optional<Admission> refusalOf(const boost::system::error_code& error);

/// Whether the connection goes on with another request. `request` is null if none could be read.
[[nodiscard]] bool keepsAlive(const Admission& admission, const Request* request) noexcept;

/// What is behind the answer's text: the file that is served, if one is. It lives as long as the
/// policy's assets.
[[nodiscard]] std::string_view responseBody(const Admission& admission,
                                            const Request* request) noexcept;
/// The answer up to that, with the reason of a refusal. `request` is null if none could be read.
/// Throws std::runtime_error for 101 when the system's cryptography knows no SHA-1.
[[nodiscard]] std::string responseText(const Admission& admission, const Request* request,
                                       const AccessPolicy& policy);

}  // namespace kirogateway
