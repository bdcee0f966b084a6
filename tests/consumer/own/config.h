#pragma once

// A program's own header of a name that the library has too.
#define CONSUMER_PORT "PORT=8443"
