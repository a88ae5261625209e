#include "lumora/app/command_line.hpp"

int main(int argc, char** argv) { return lumora::CommandLine::run(argc, argv); }
