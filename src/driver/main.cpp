// main.cpp - the remise-vorane executable: hands the command line to the
// entry operation, which ends the process itself except for "-decode".
#include "driver/driver.h"

int main(int argc, char **argv) { return RemiseVorane(argc, argv); }
