// Build identity exported to users of the library.
#include "zephrpc.h"

extern "C" {
const int32_t _lib_version = 1;
// "$Built: Jul 29 2011 11:11:52 $", stamped with this build's date and time.
const char server_built[] = "$Built: " __DATE__ " " __TIME__ " $";
}
