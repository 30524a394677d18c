// The tervane command; everything lives in the tervane_tool library.
#include "frontend.h"

int main(int argc, char** argv) { return tervane::tool::Main(argc, argv); }
