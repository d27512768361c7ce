// The transport tests' system-call probe, compiled into this program too, so
// that the request-cost tests count the driver's socket calls the same way.
#include "transport/syscall_probe.cpp"
