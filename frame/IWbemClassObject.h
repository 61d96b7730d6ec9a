// The device record: thirteen named text properties and one integer.
#pragma once

#include "frame/Export.h"

#include <map>
#include <string>

namespace Vantrel {
namespace Ostrand {

typedef std::map<std::string, std::string> StrMap;
typedef std::map<std::string, StrMap> StrMapMap;

class OSTRAND_API IWbemClassObject {
public:
    IWbemClassObject(std::string deviceName, std::string disableDeviceName, std::string deviceDescriptor,
                     std::string deviceDescription, std::string deviceLocation, std::string deviceResourceTag,
                     std::string deviceParentLocation, std::string deviceClass, std::string manufacturerName,
                     std::string modelNumber, std::string firmwareRevisionLevel, std::string serialNumber,
                     std::string additionalHWInfo, int value);
    ~IWbemClassObject();

    // The key must be one of the thirteen; any other key is not a property of a record.
    void getValue(std::string key, std::string& value);
    int getValue();

private:
    StrMap m_properties;
    int m_value;
};

} // namespace Ostrand
} // namespace Vantrel
