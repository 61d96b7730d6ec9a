#include "usb/Usb_Device.h"

Usb_Device::Usb_Device()
    : deviceClass(0), deviceSubClass(0), deviceErrorCode(0), nodeKind(0), numOfPorts(0), selfPowered(0),
      vendorId(0), productId(0), spareInt1(0), spareInt2(0), endDevice(false), spareFlag(false)
{
}

// slotName is left out on purpose: it belongs to the record it was written
// on, and a copy starts without it.
Usb_Device::Usb_Device(Usb_Device const& other)
    : deviceClass(other.deviceClass), deviceSubClass(other.deviceSubClass), deviceErrorCode(other.deviceErrorCode),
      nodeKind(other.nodeKind), numOfPorts(other.numOfPorts), selfPowered(other.selfPowered),
      vendorId(other.vendorId), productId(other.productId), spareInt1(other.spareInt1),
      spareInt2(other.spareInt2), endDevice(other.endDevice), spareFlag(other.spareFlag),
      deviceNum(other.deviceNum), devicePath(other.devicePath), driverName(other.driverName),
      classText(other.classText), subClassText(other.subClassText), usbSpec(other.usbSpec),
      firmwareRev(other.firmwareRev), serialNo(other.serialNo), manufacturerIndex(other.manufacturerIndex),
      manufacturer(other.manufacturer), vendorName(other.vendorName), productName(other.productName),
      modelName(other.modelName), usbSpeed(other.usbSpeed), controllerVendor(other.controllerVendor),
      deviceDescription(other.deviceDescription), displayName(other.displayName), addlHWInfo(other.addlHWInfo),
      spareText(other.spareText), parentPath(other.parentPath), location(other.location),
      parentLocation(other.parentLocation), productIdText(other.productIdText), vendorIdText(other.vendorIdText)
{
}

// The clean-up passes slotName by, as the copy does; the members release
// their text afterwards in any case.
Usb_Device::~Usb_Device()
{
    deviceClass = 0;
    deviceSubClass = 0;
    deviceErrorCode = 0;
    nodeKind = 0;
    numOfPorts = 0;
    selfPowered = 0;
    vendorId = 0;
    productId = 0;
    spareInt1 = 0;
    spareInt2 = 0;
    endDevice = false;
    spareFlag = false;
    deviceNum.clear();
    devicePath.clear();
    driverName.clear();
    classText.clear();
    subClassText.clear();
    usbSpec.clear();
    firmwareRev.clear();
    serialNo.clear();
    manufacturerIndex.clear();
    manufacturer.clear();
    vendorName.clear();
    productName.clear();
    modelName.clear();
    usbSpeed.clear();
    controllerVendor.clear();
    deviceDescription.clear();
    displayName.clear();
    addlHWInfo.clear();
    spareText.clear();
    parentPath.clear();
    location.clear();
    parentLocation.clear();
    productIdText.clear();
    vendorIdText.clear();
}
