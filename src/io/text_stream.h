// Opening text files plain or through gzip, chosen by the file name alone:
// a path whose extension is exactly ".gz" is compressed, anything else is plain.
#pragma once

#include <istream>
#include <memory>
#include <ostream>

#include <boost/filesystem/path.hpp>

bool is_gzip_path(boost::filesystem::path const& path);

// A readable stream on the file, or nullptr when the file cannot be opened.
// gzip input uses window bits 15 and a 4096-byte buffer.
std::unique_ptr<std::istream> open_text_input(boost::filesystem::path const& path);

// A writable stream on the file (truncating it), or nullptr when it cannot be
// opened. gzip output uses the library's default compressor parameters; the
// gzip stream is completed when the returned stream is destroyed.
std::unique_ptr<std::ostream> open_text_output(boost::filesystem::path const& path);

// Reads one line, dropping a trailing carriage return left by CRLF files.
bool read_text_line(std::istream& in, std::string& line);
