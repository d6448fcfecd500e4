// One run at a time per phone root. Two runs at once (a boot script that starts the tool
// twice, modes 1 and 2 together) would each read what the other is halfway through
// changing and remove the other's temporary files; one after the other, each run finds
// what a whole run left.
#pragma once

namespace store {

// Takes the lock of the root's /config for the rest of the process, waiting a bounded
// time for a run that holds it. False (one line logged) when it could not be had in that
// time: the run then does nothing, and the next boot does the work. True, without a lock,
// when there is no /config directory to lock (nothing under it can be written then) or
// when it cannot be locked for any other reason (logged): the run does what it can.
bool lockConfigTree();

// Lets go of the lock, when there is one (a new root, or a new run in this process).
void unlockConfigTree();

}  // namespace store
