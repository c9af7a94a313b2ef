#include "kep.h"
#include "kep-front.h"

int main(int argc, char **argv) { return main_loop(argc, argv); }
