// The factory CA certificate sync.
#pragma once

// Copies the factory CA certificates that the configuration area lacks.
void syncFactoryCaCerts();
