// What a shared library shows of the public headers' classes.
#pragma once

// Marks the classes that a shared library of kelvane shows to its users.
#define KELVANE_EXPORT __attribute__((visibility("default")))
