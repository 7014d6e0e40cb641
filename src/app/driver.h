// The whole run: banner, parameters, inputs, matrix run, timing. Returns the exit status.
#pragma once

int run_ketra(int argc, char** argv);
