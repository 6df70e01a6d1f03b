#include "rDxsd/rDxsd.h"

int ProcessSetIpConfiguration(TavrinRequest* call, TavrinResponse* result) {
    return ProcessUnknown(call, result);
}
int ProcessSetDeviceAttributes(TavrinRequest* call, TavrinResponse* result) {
    return ProcessUnknown(call, result);
}
int ProcessRunDeviceSelfTest(TavrinRequest* call, TavrinResponse* result) {
    return ProcessUnknown(call, result);
}
int ProcessUpdateDeviceFirmware(TavrinRequest* call, TavrinResponse* result) {
    return ProcessUnknown(call, result);
}
