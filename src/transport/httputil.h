// HTTP framing: the growable message buffer, the request header and its
// length patch, the line reader and keyword matcher, blocking readers and the
// version packing. A buffer belongs to one thread at a time.
//
// Failures, for the framing and the encodings alike, are return values: what
// cannot be made is null (an index -1), an append that cannot get memory
// leaves the buffer as it was, and the blocking readers free theirs.
#pragma once

#include <stdarg.h>
#include <stdint.h>

typedef struct tagHTTP_BUF {
    int buflen;  // capacity believed, not counting the byte for the NUL
    int datalen; // valid bytes in data
    int offset;  // read position
    char* data;  // malloc'd, NUL-terminated, or null
} HTTP_BUF, CHTTP_BUF;

// Bounds of the blocking readers: a peer that sends a longer header, or
// announces a longer body, is treated like a receive error.
constexpr int kMaxHttpHeaderBytes = 1 << 20;
constexpr int kMaxHttpBodyBytes = 16 << 20;

extern "C" {
// Appends text; a piece of any length is kept exact. Should memory run out the
// text is dropped and the buffer left as it was.
void CopyToHttpBuf(tagHTTP_BUF* buf, const char* text);
void sprintfToHttpBuf(tagHTTP_BUF* buf, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void vsprintfToHttpBuf(tagHTTP_BUF* buf, const char* format, va_list args);
// Interface only: an independent copy of n bytes from src's read position.
void CopyHttpBuf(const tagHTTP_BUF* src, tagHTTP_BUF* dst, int n);
void FreeHttpBuf(tagHTTP_BUF* buf);

// Clears buf, writes the POST header for host; *lengthPos receives the index
// of the five-character length field. Returns the header length.
int BuildHttpReqHeader(tagHTTP_BUF* buf, const char* host, int* lengthPos);
// Prints bodyLength as "%5d" over the field; a length that does not fit in
// five characters leaves the field unpatched.
void SetContentLength(tagHTTP_BUF* buf, int lengthPos, int bodyLength);

// Index in data[0, length) of the blank line that ends a header: the first
// "\r\n\r\n" (*terminatorSize 4), else the first "\n\n" (2); -1 if neither.
int FindHttpHeaderEnd(const char* data, int length, int* terminatorSize);
// Next line at buf->offset (modified in place), or "" when no whole line.
char* HttpGetLine(tagHTTP_BUF* buf);
// Value of a KEY=VALUE line whose key is keyword (any case), else null.
char* HttpMatchKeyword(char* line, const char* keyword);

// Interface only (the read loop parses in the dispatcher): blocking readers;
// on error or end of stream they free buf and return null.
char* ReadHttpHeader(int socket, tagHTTP_BUF* buf);
char* ReadHttpBody(int socket, tagHTTP_BUF* buf, int contentLength);

uint32_t MakeMajorMinVerParam(const char* text);
}
