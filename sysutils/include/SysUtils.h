#pragma once

#include <cstddef>
#include <cstdio>
#include <ctime>
#include <string>

// Prints rows of 16 bytes as "offset: hex bytes", optionally followed by the printable
// characters. Meant for lengths that are multiples of 16 (RPMB frames, keys).
void hex_dump(FILE* stream, const unsigned char* data, size_t length, bool ascii);

// UTC text such as 1970-01-01T00:00:00Z.
std::string unix_time_to_iso8601(time_t t);
// The seconds of an ISO 8601 text; 0 when it does not parse (or is null).
time_t iso8601_to_unix_time(const char* text);

// Flushes a regular file to storage; true when it could be opened and synced.
bool fsync_file(const char* path);
// Flushes a directory's entries to storage, which makes a file created or renamed in it
// durable; true when it could be opened and synced.
bool fsync_directory(const char* path);

// Reads exactly `length` bytes from the start of a file, or from standard input for a null
// path or "-". With `buffered` false stdio buffering is turned off, so that no more than
// asked for is consumed (for device nodes).
bool read_data_file(const char* path, unsigned char* buffer, size_t length, bool buffered);

// True when `text` is standard base64: the standard alphabet, a length that is a multiple
// of four and at most two "=" of padding at the end.
bool is_valid_base64(const char* text);
// Decodes standard base64 into a buffer of exactly `length` bytes. Fails, leaving the
// buffer untouched, when the text is not valid base64 or decodes to another length.
bool read_data_base64(const char* text, unsigned char* buffer, size_t length);

// True when the path names a character or block device.
bool is_dev(const char* path);
