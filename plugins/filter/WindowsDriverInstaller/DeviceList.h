// A list of devices as setupapi makes it.
#pragma once

#include <memory>
#include <type_traits>

#include <windows.h>
#include <setupapi.h>

struct DestroyDeviceList {
    void operator()(HDEVINFO list) const { (void)SetupDiDestroyDeviceInfoList(list); }
};
using DeviceList = std::unique_ptr<std::remove_pointer_t<HDEVINFO>, DestroyDeviceList>;
