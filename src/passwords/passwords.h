// The stored-password protection switch.
#pragma once

// Compares the user's and the factory's lock setting and re-encodes the protected keys
// when they disagree.
int switchPasswordProtection();
