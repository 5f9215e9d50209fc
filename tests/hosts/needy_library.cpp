// A library that cannot be loaded without another one, in the place of one that a host loads.

extern "C" __declspec(dllimport) int NeededCall();

extern "C" __declspec(dllexport) int CallAnother() {
  return NeededCall();
}
