/* The release this binary was built from, for `strings quarrystat | grep version` on a device:
 * the tool has no option to print it, and a pushed file carries no other label. The version is
 * the CMake project's, passed to this file alone. `used` keeps the unreferenced array through
 * optimisation; the object is linked directly into the program, so the linker keeps it too. */
__attribute__((used)) static const char quarry_version[] = "quarrystat version " QUARRY_VERSION;
