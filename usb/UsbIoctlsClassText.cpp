// UsbIoctls: the description of a USB class and subclass.
#include "usb/UsbIoctls.h"

namespace Vantrel {
namespace Ostrand {

namespace {

std::string audioText(int subClass)
{
    switch (subClass) {
    case 1: return "USB Audio Control Device";
    case 2: return "USB Streaming Audio Device";
    case 3: return "USB Non Streaming Device";
    default: return "USB Audio Device";
    }
}

std::string communicationText(int subClass)
{
    switch (subClass) {
    case 1: return "USB Direct Line Communication Device";
    case 2: return "USB Abstract modem Communication Device";
    case 3: return "USB Telephone Communication Device";
    case 4: return "USB Multi-Channel Communication Device";
    case 5: return "USB CAPI Control Communication Device";
    case 6: return "USB Ethernet Networking Device";
    case 7: return "USB ATM Networking Device";
    default: return "USB Communication Device";
    }
}

std::string massStorageText(int subClass)
{
    switch (subClass) {
    case 1: return "USB Mass Storage RBC typically Flash Device";
    case 2: return "USB Mass Storage SFF-8020i, MMC-2 ATAPI Device";
    case 3: return "USB Mass Storage QIC-157 Device";
    case 4: return "USB Mass Storage Floppy UFI Device";
    case 5: return "USB Mass Storage SFF-8070i Device";
    case 6: return "USB Mass Storage SCSI Device";
    default: return "USB Mass Storage Device";
    }
}

std::string dataText(int subClass)
{
    switch (subClass) {
    case 30: return "USB I.430 ISDN BRI Data Device";
    case 31: return "USB HDLC Data Device";
    case 32: return "USB Transparent Data Device";
    case 50: return "USB Q.921M Data Device";
    case 51: return "USB Q.921 Data Device";
    case 52: return "USB Q.921TM Data Device";
    case 90: return "USB V.42bis Data Device";
    case 91: return "USB Q.932 EuroISDN Data Device";
    case 92: return "USB V.120 V.24 rate ISDN Data Device";
    case 93: return "USB CAPI 2.0 Data Device";
    case 253: return "USB Host Based Driver Data Device";
    case 254: return "USB CDC PUF Data Device";
    case 255: return "USB Vendor specific Data Device";
    default: return "USB Data Device";
    }
}

} // namespace

std::string UsbIoctls::getDevDscrpn(const int& deviceClass, const int& subClass)
{
    std::string text = "USB Device";
    switch (deviceClass) {
    case 1: text = audioText(subClass); break;
    case 2: text = communicationText(subClass); break;
    case 3: text = "USB Human Interface Device"; break;
    case 5: text = "USB Physical interface Device"; break;
    // Imaging and printers run on into the mass storage rows, which replace
    // their texts: a printer is described as mass storage, and callers see
    // it so.
    case 6:
        text = "USB Imaging Device";
        if (subClass == 1) {
            text = "USB Still Image Capture Imaging Device";
        }
        [[fallthrough]];
    case 7:
        text = "USB Printer Device";
        [[fallthrough]];
    case 8: text = massStorageText(subClass); break;
    case 9: text = "USB Hub"; break;
    case 10: text = dataText(subClass); break;
    case 254: text = "USB Application Specific Device"; break;
    case 255: text = "USB Vendor Specific Device"; break;
    default: break;
    }
    return text;
}

} // namespace Ostrand
} // namespace Vantrel
