// The record of one USB device or hub, as every USB route of the library
// fills it, and the map that holds a whole USB tree by node path.
//
// The record leaves the library as it is: the framework reads its fields by
// position, so their order and types are fixed. Numbers first, then the two
// flags, then the texts.
#pragma once

#include "frame/Export.h"

#include <map>
#include <string>

class OSTRAND_API Usb_Device {
public:
    // All numbers zero, both flags false, every text empty.
    Usb_Device();
    // Copies every number, flag and text except slotName, which the new
    // record leaves empty.
    Usb_Device(Usb_Device const& other);
    // Zeroes the numbers and flags and empties every text but slotName.
    ~Usb_Device();

    int deviceClass;       // 9 is a hub
    int deviceSubClass;
    int deviceErrorCode;   // 0 no fault, 28 no driver bound, 10 the status request failed
    int nodeKind;          // 0 not placed, 1 root hub, 2 hub below a root hub, 3 end device
    int numOfPorts;
    int selfPowered;       // 1 self powered, else 0
    int vendorId;
    int productId;
    int spareInt1;         // the framework's; only zeroed and copied here
    int spareInt2;         // the framework's; only zeroed and copied here
    bool endDevice;        // set, never cleared
    bool spareFlag;        // the framework's; only cleared and copied here
    std::string deviceNum;       // three digits
    std::string devicePath;      // root, bus in three digits, "/", deviceNum; the key in a UsbMap
    std::string driverName;
    std::string classText;       // deviceClass as first read
    std::string subClassText;    // deviceSubClass as first read
    std::string usbSpec;
    std::string firmwareRev;
    std::string serialNo;
    std::string manufacturerIndex;
    std::string manufacturer;
    std::string vendorName;
    std::string productName;
    std::string modelName;
    std::string usbSpeed;
    std::string controllerVendor;
    std::string deviceDescription;
    std::string slotName;        // never copied: stays on the record it was written to
    std::string displayName;
    std::string addlHWInfo;
    std::string spareText;       // the framework's; only emptied and copied here
    std::string parentPath;
    std::string location;
    std::string parentLocation;
    std::string productIdText;
    std::string vendorIdText;
};

// The records of a USB tree by devicePath. Insertion keeps the entry that is
// already there: the first record of a path wins.
typedef std::map<std::string, Usb_Device> UsbMap;
