// What somebody puts into a folder that a host may be started in, under the name of a library that the
// flashing library needs.

extern "C" __declspec(dllexport) int NeededCall() {
  return 1;
}
