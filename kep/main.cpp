#include "kep-front.h"
#include "kep.h"

int main(int argc, char **argv) { return main_loop(argc, argv); }
