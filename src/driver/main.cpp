#include "driver/driver.h"

int main(int argc, char** argv) { return runUpgrade(argc, argv); }
