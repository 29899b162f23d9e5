// The development gateway's side of the wire: splitting the client's byte
// stream into requests, and the exact bytes of every reply and push. Pure
// functions over strings; any thread.
#pragma once

#include "DevGateway.h"

#include <cstddef>
#include <string>

namespace devgw::wire {

// A request, header or body larger than this drops the client.
constexpr size_t kMaxMessageBytes = 1 << 20;

// Commands compare without regard to case, as the client's dispatcher does.
bool SameCommand(const std::string& a, const std::string& b);

enum class Take { Incomplete, Taken, TooLarge };

// Index just past the empty line that ends the header at the front of data
// (line ends "\n" or "\r\n", mixed as they come), or npos.
size_t HeaderEnd(const std::string& data);
// Value of the last "Content-Length:" line (any case); 0 when absent or not a
// number; -1 when it exceeds kMaxMessageBytes.
long ContentLength(const std::string& header);
// Moves one whole request from the front of buffer into out.
Take TakeRequest(std::string& buffer, Request& out);
// Splits a body into its KEY=VALUE lines; a line without "=" is a key with an
// empty value; empty lines are skipped.
void ParseFields(const std::string& body, Request& out);

std::string OpenReplyBody(const Options& options);
std::string MessageBody(int id, const std::string& sender, const std::string& text);
std::string ConfigUpdateBody(unsigned cmpiSeconds);
std::string FileInfoReplyBody(const std::string& link, const std::string& fname,
                              uint64_t lastWriteTime, uint64_t size, int result);
std::string NCDataABody(unsigned connectionId, const std::string& payload, unsigned seq);
std::string NCDataBFrame(unsigned connectionId, const std::string& payload, unsigned seq);

// Path of a GET request's target without the leading "/" (an absolute
// "http://host/..." target loses its scheme and host too); false if malformed.
bool GetPath(const std::string& header, std::string& path);
// The full HTTP answer to a GET: 200 with the content, or 404 when null.
std::string GetResponse(const std::string* content);

// One readable line: client, command and every field, bytes outside printable
// ASCII escaped.
std::string Describe(const Request& request);
std::string Escape(const std::string& bytes);

} // namespace devgw::wire
