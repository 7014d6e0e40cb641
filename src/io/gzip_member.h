// One complete gzip member holding a block of text. Members concatenated
// form one valid gzip file, so blocks can be compressed independently (on
// several threads) and written in order.
#pragma once

#include <string>

// Appends to `out` the gzip member of `text`, compressed at `level` (1 = fastest).
void append_gzip_member(std::string& out, std::string const& text, int level);
