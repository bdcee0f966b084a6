#pragma once

// Marks what libneutils.so exports; everything else in it is hidden.
#define NEUTILS_API __attribute__((visibility("default")))
