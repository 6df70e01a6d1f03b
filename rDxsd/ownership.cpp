#include "rDxsd/rDxsd.h"

int ProcessAllocateDevice(TavrinRequest* call, TavrinResponse* result) {
    return ProcessUnknown(call, result);
}
int ProcessReleaseDevice(TavrinRequest* call, TavrinResponse* result) { return ProcessUnknown(call, result); }
int ProcessInitiateCfgRequest(TavrinRequest* call, TavrinResponse* result) {
    return ProcessUnknown(call, result);
}
