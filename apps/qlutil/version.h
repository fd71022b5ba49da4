#pragma once

// The program's version, as the banner prints it.
extern const char *const kQlutilVersion;
