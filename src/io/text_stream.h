// Opening text files plain or through gzip, chosen by the file name alone:
// a path whose extension is exactly ".gz" is compressed, anything else is plain.
#pragma once

#include <istream>
#include <memory>
#include <string>

#include <boost/filesystem/path.hpp>

bool is_gzip_path(boost::filesystem::path const& path);

// A readable stream on the file, or nullptr when the file cannot be opened.
// gzip input uses window bits 15 and a 4096-byte buffer. Reading a gzip file
// that turns out truncated, corrupt or not compressed at all throws
// badfilename ("Error reading file <name>: <reason>") from the read itself,
// so that a damaged file is never taken for a shorter one.
std::unique_ptr<std::istream> open_text_input(boost::filesystem::path const& path);

// Reads one line, dropping a trailing carriage return left by CRLF files.
bool read_text_line(std::istream& in, std::string& line);

// Whether the file begins with the two gzip magic bytes (false when it cannot
// be read). Inputs that are always read as plain text use it to refuse a
// compressed file under -strict.
bool starts_with_gzip_magic(boost::filesystem::path const& path);

// The reason given when a plain-text input turns out to be gzip-compressed.
extern char const* const gzip_in_plain_input;
