#pragma once

// The mark of what the library exports. Its interface is that of version 1: a later library of the
// same name (libvantor-kit.so.1) keeps every function and the size of every class. A class that a
// program derives from gets no further virtual function.
#define VANTOR_KIT_API __attribute__((visibility("default")))
