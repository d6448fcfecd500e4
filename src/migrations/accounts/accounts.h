// Migrations of the SIP account files.
#pragma once

#include <string>

// Path of account file n: "/config/user/voip/sipAccount<n>.cfg".
std::string accountFilePath(int n);

// Makes account/SCALineKeyNumber explicit (-1) in every existing account file, 16 down to 0.
void migrateScaLineKeyNumber();
// Seeds Feature/RingbackTimeout of the user file from account file 0's CancelTimer.
void migrateRingbackTimeout();
// Mode 1: moves the flagged direct-IP account into /config/user/voip/directip.cfg.
void gatherDirectIpAccount();
// Mode 2: installs the direct-IP file, or the factory's, as account file 16.
void installDirectIpAccount();
// Mode 2, last: removes the direct-IP file once account file 16 durably holds it.
void removeInstalledDirectIpFile();
// Drops one leading '?' from every key value inside a section and saves the file.
// 1 when saved; 0 for an empty path, a missing or unreadable file, or a failed save.
int stripValueMarks(const std::string& path);
