// Console progress bar and the run's diagnostic helpers.
#pragma once

#include <string>

class data;
class HMM;

// "[" + round-down(fraction * width) asterisks + blanks to width + "]";
// the fraction is clamped to [0, 1].
std::string get_progress_bar(unsigned long width, double fraction);

// Redraws the matrix run's progress line in place: "\r", the 60-wide bar,
// the count done right-aligned in 10 characters, "/", the total; flushed.
void draw_progress_line(int done, int total);

// Prints an estimate of the memory the run's stores take (32-bit products, as
// the estimate has always been computed).
void mem_est(data const& d, HMM& h);

// Number of lines of a text file; 0 when it cannot be opened.
int countLines(std::string filename);
