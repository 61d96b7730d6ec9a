#include "tests/support/UsbRecords.h"

namespace ostrand_test {

std::vector<std::string> describe(const Usb_Device& d)
{
    return {"deviceClass=" + std::to_string(d.deviceClass),
            "deviceSubClass=" + std::to_string(d.deviceSubClass),
            "deviceErrorCode=" + std::to_string(d.deviceErrorCode),
            "nodeKind=" + std::to_string(d.nodeKind),
            "numOfPorts=" + std::to_string(d.numOfPorts),
            "selfPowered=" + std::to_string(d.selfPowered),
            "vendorId=" + std::to_string(d.vendorId),
            "productId=" + std::to_string(d.productId),
            "spareInt1=" + std::to_string(d.spareInt1),
            "spareInt2=" + std::to_string(d.spareInt2),
            "endDevice=" + std::to_string(d.endDevice),
            "spareFlag=" + std::to_string(d.spareFlag),
            "deviceNum=" + d.deviceNum,
            "devicePath=" + d.devicePath,
            "driverName=" + d.driverName,
            "classText=" + d.classText,
            "subClassText=" + d.subClassText,
            "usbSpec=" + d.usbSpec,
            "firmwareRev=" + d.firmwareRev,
            "serialNo=" + d.serialNo,
            "manufacturerIndex=" + d.manufacturerIndex,
            "manufacturer=" + d.manufacturer,
            "vendorName=" + d.vendorName,
            "productName=" + d.productName,
            "modelName=" + d.modelName,
            "usbSpeed=" + d.usbSpeed,
            "controllerVendor=" + d.controllerVendor,
            "deviceDescription=" + d.deviceDescription,
            "slotName=" + d.slotName,
            "displayName=" + d.displayName,
            "addlHWInfo=" + d.addlHWInfo,
            "spareText=" + d.spareText,
            "parentPath=" + d.parentPath,
            "location=" + d.location,
            "parentLocation=" + d.parentLocation,
            "productIdText=" + d.productIdText,
            "vendorIdText=" + d.vendorIdText};
}

} // namespace ostrand_test
