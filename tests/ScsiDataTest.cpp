// The readers of SCSI reply bytes, alone: sense data, READ CAPACITY blocks,
// INQUIRY fields, each within the buffer it is given.
#include "probes/ScsiData.h"

#include "tests/support/ScsiNodes.h"

#include <gtest/gtest.h>

#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::bytes;

namespace {

const unsigned char* raw(const std::string& text) { return reinterpret_cast<const unsigned char*>(text.data()); }

SenseReading sense(const std::string& bytesRead, int written)
{
    return readSense(raw(bytesRead), bytesRead.size(), written);
}

} // namespace

TEST(ScsiDataTest, FixedFormatKeyAtByteTwoCodeAtByteTwelve)
{
    std::string fixed = bytes({0x70, 0, 0x02, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x3A, 0x01, 0, 0, 0, 0});
    SenseReading reading = sense(fixed, 18);
    EXPECT_TRUE(reading.usable);
    EXPECT_EQ(reading.key, 2);
    EXPECT_EQ(reading.code, 0x3A);
    // Deferred errors (0x71) are fixed format too, and flags above the key are dropped.
    fixed[0] = 0x71;
    fixed[2] = static_cast<char>(0xE6);
    reading = sense(fixed, 18);
    EXPECT_EQ(reading.key, 6);
    EXPECT_EQ(reading.code, 0x3A);
}

TEST(ScsiDataTest, FixedFormatOfTwelveBytesHasCodeZero)
{
    std::string fixed = bytes({0x70, 0, 0x02, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x3A, 0x01});
    EXPECT_EQ(sense(fixed, 12).code, 0);
    EXPECT_EQ(sense(fixed, 12).key, 2);
    EXPECT_EQ(sense(fixed, 13).code, 0x3A);
}

TEST(ScsiDataTest, DescriptorFormatKeyAtByteOneCodeAtByteTwo)
{
    for (int first : {0x72, 0x73}) {
        SenseReading reading = sense(bytes({first, 0x05, 0x24, 0x00, 0, 0, 0, 0}), 8);
        EXPECT_TRUE(reading.usable);
        EXPECT_EQ(reading.key, 5) << first;
        EXPECT_EQ(reading.code, 0x24) << first;
    }
    // Bit 1 of byte 0 alone decides.
    SenseReading odd = sense(bytes({0x02, 0xF6, 0x28}), 3);
    EXPECT_EQ(odd.key, 6);
    EXPECT_EQ(odd.code, 0x28);
}

TEST(ScsiDataTest, FewerThanThreeBytesAreNotUsable)
{
    std::string fixed = bytes({0x70, 0, 0x02, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x3A});
    for (int written : {-1, 0, 1, 2}) {
        EXPECT_FALSE(sense(fixed, written).usable) << written;
    }
    EXPECT_TRUE(sense(fixed, 3).usable);
    EXPECT_FALSE(readSense(nullptr, 64, 18).usable);
}

TEST(ScsiDataTest, OnlyBytesInTheBufferAreRead)
{
    // Written claims 200 bytes; the buffer has 5: byte 12 is out of reach.
    std::string shortBuffer = bytes({0x70, 0, 0x02, 0, 0});
    SenseReading reading = sense(shortBuffer, 200);
    EXPECT_TRUE(reading.usable);
    EXPECT_EQ(reading.code, 0);
    EXPECT_FALSE(sense(bytes({0x70, 0}), 200).usable);
}

TEST(ScsiDataTest, TheKeyAtByteTwoWhateverTheFormat)
{
    EXPECT_EQ(senseKeyAtByteTwo(raw(bytes({0x70, 0, 0x82})), 3), 2);
    EXPECT_EQ(senseKeyAtByteTwo(raw(bytes({0x72, 0x02, 0x3A})), 3), 0xA);
    EXPECT_EQ(senseKeyAtByteTwo(raw(bytes({0x70, 0})), 2), 0);
    EXPECT_EQ(senseKeyAtByteTwo(nullptr, 32), 0);
}

TEST(ScsiDataTest, CapacityIsTheBigEndianLastBlockPlusOne)
{
    EXPECT_EQ(capacityBlocks(raw(bytes({0, 0, 0x0B, 0x3F, 0, 0, 2, 0})), 8), 2880);
    EXPECT_EQ(capacityBlocks(raw(bytes({0x12, 0x34, 0x56, 0x78})), 4), 0x12345679);
    EXPECT_EQ(capacityBlocks(raw(bytes({0xFF, 0xFF, 0xFF, 0xFF})), 4), 0);
    EXPECT_EQ(capacityBlocks(raw(bytes({0xFF, 0xFF, 0xFF, 0xFE})), 4), -1);
    EXPECT_EQ(capacityBlocks(raw(bytes({0x01, 0x02})), 2), 0x01020001);
    EXPECT_EQ(capacityBlocks(nullptr, 8), 1);
}

TEST(ScsiDataTest, InquiryFieldsAtTheirOffsets)
{
    std::string reply = bytes({0x25, 0x80, 5, 2, 31, 0, 0, 0}) + "LABUSB  " + "USB FLOPPY 1.44 " + "1.00";
    InquiryReading reading = readInquiry(raw(reply), reply.size());
    EXPECT_EQ(reading.peripheralType, 5); // the qualifier bits above are not the type
    EXPECT_TRUE(reading.removable);
    EXPECT_EQ(reading.vendor, "LABUSB  ");
    EXPECT_EQ(reading.product, "USB FLOPPY 1.44 ");
    EXPECT_EQ(reading.revision, "1.00");
}

TEST(ScsiDataTest, InquiryTextsEndAtTheirFirstNulAndAreCut)
{
    std::string reply = bytes({0, 0, 5, 2, 31, 0, 0, 0});
    reply += std::string("AB\0CDEFG", 8);
    reply += "PRODUCT WITHOUT NUL";
    reply.resize(32, 'x');
    reply += "REVISION-LONG";
    InquiryReading reading = readInquiry(raw(reply), reply.size());
    EXPECT_FALSE(reading.removable);
    EXPECT_EQ(reading.vendor, "AB");
    EXPECT_EQ(reading.product, "PRODUCT WITHOUT ");
    EXPECT_EQ(reading.revision, "REVI");
}

TEST(ScsiDataTest, ShortInquiryDataGiveWhatTheyHold)
{
    std::string reply = bytes({0x05, 0x80, 5, 2, 31, 0, 0, 0}) + "QEM";
    InquiryReading reading = readInquiry(raw(reply), reply.size());
    EXPECT_EQ(reading.peripheralType, 5);
    EXPECT_EQ(reading.vendor, "QEM");
    EXPECT_EQ(reading.product, "");
    EXPECT_EQ(reading.revision, "");
    // A 36-byte reply without a NUL anywhere: the revision stops at the end.
    std::string full(36, 'Z');
    EXPECT_EQ(readInquiry(raw(full), full.size()).revision, "ZZZZ");
    EXPECT_EQ(readInquiry(raw(full), 34).revision, "ZZ");
    EXPECT_EQ(readInquiry(raw(full), 0).peripheralType, 0);
    EXPECT_EQ(readInquiry(nullptr, 36).vendor, "");
}
