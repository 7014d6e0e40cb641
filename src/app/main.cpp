#include "app/driver.h"

int main(int argc, char** argv) { return run_ketra(argc, argv); }
