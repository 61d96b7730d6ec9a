#include "frame/IWbemClassObject.h"

namespace Vantrel {
namespace Ostrand {

IWbemClassObject::IWbemClassObject(std::string deviceName, std::string disableDeviceName,
                                   std::string deviceDescriptor, std::string deviceDescription,
                                   std::string deviceLocation, std::string deviceResourceTag,
                                   std::string deviceParentLocation, std::string deviceClass,
                                   std::string manufacturerName, std::string modelNumber,
                                   std::string firmwareRevisionLevel, std::string serialNumber,
                                   std::string additionalHWInfo, int value)
{
    m_properties.insert(StrMap::value_type("DeviceName", deviceName));
    m_properties.insert(StrMap::value_type("DisableDeviceName", disableDeviceName));
    m_properties.insert(StrMap::value_type("DeviceDescriptor", deviceDescriptor));
    m_properties.insert(StrMap::value_type("DeviceDescription", deviceDescription));
    m_properties.insert(StrMap::value_type("DeviceLocation", deviceLocation));
    // The lower-case r is part of the key; the framework asks for it so.
    m_properties.insert(StrMap::value_type("DeviceresourceTag", deviceResourceTag));
    m_properties.insert(StrMap::value_type("DeviceParentLocation", deviceParentLocation));
    m_properties.insert(StrMap::value_type("DeviceClass", deviceClass));
    m_properties.insert(StrMap::value_type("DeviceManufacturerName", manufacturerName));
    m_properties.insert(StrMap::value_type("DeviceModelNumber", modelNumber));
    m_properties.insert(StrMap::value_type("DeviceFirmwareRevisionLevel", firmwareRevisionLevel));
    m_properties.insert(StrMap::value_type("DeviceSerialNumber", serialNumber));
    m_properties.insert(StrMap::value_type("DeviceAdditionalHWInfo", additionalHWInfo));
    m_value = value;
}

IWbemClassObject::~IWbemClassObject() {}

void IWbemClassObject::getValue(std::string key, std::string& value)
{
    // A key outside the thirteen has no defined answer; here it gives the
    // empty string rather than growing the record.
    StrMap::const_iterator it = m_properties.find(key);
    value = it != m_properties.end() ? it->second : std::string();
}

int IWbemClassObject::getValue() { return m_value; }

} // namespace Ostrand
} // namespace Vantrel
