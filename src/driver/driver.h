// The upgrade driver: the mode table and the one conversion it runs itself.
#pragma once

// The whole program: logs the usage line without a mode, otherwise runs the steps the
// mode selects, committing the store after each. Always returns 0.
int runUpgrade(int argc, char** argv);

// The name of the step running now (or being saved after it), as the run table names
// it; null between steps.
const char* runningStep();

// Backlight/nBacklightTime below 60 is in minutes in the old layout: make it seconds.
void convertBacklightTime();
