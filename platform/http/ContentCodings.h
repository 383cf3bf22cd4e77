#pragma once

#include <string>
#include <vector>

/// What a server may have done to a body: the header Content-Encoding.
namespace tamsel::ContentCodings {

/// Worth of the header Accept-Encoding. More is understood than is asked for.
inline constexpr const char* accepted = "gzip";

/// From the header's value, all lines of it separated by commas, in the order in which they have to
/// be undone; without those that change nothing. Throws HttpClient::TransportError for one that is
/// not known, or for too many.
std::vector<std::string> parse(const std::string& header);

/// Undoes them. Only data that has its end, and is right where it has a checksum, is decoded: for
/// any other HttpClient::TransportError is thrown, and HttpClient::TooLarge as soon as there is too
/// much at some stage. Takes a while.
std::string decoded(std::string body, const std::vector<std::string>& codings);

}  // namespace tamsel::ContentCodings
