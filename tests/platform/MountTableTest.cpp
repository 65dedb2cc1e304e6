#include <gtest/gtest.h>

#include "platform/MountTable.h"
#include "platform/UdevProperties.h"

namespace vellum {
namespace {

TEST(MountTable, ParsesMountInfoWithOptionalFieldsAndEscapes) {
  const std::vector<MountEntry> entries = parseMountInfo(
      R"(36 35 98:0 /mnt1 /mnt/parent rw,noatime master:1 shared:7 - ext3 /dev/root rw,errors=continue
61 27 8:17 / /media/user/NO\040NAME rw,nosuid shared:40 - exfat /dev/sdb1 rw
62 27 8:18 / /media/tab\011and\012newline\134slash rw - vfat /dev/sdb2 rw
63 27 0:50 / /media/x rw - fuse.my\040fs my\040source rw
garbage line
64 27 8:19 / /too/short rw
65 x 8:19 / /bad/id rw - vfat /dev/sdb3 rw
66 27 8-19 / /bad/dev rw - vfat /dev/sdb3 rw
67 27 8:20 / /no/super rw - vfat /dev/sdb4)");
  ASSERT_EQ(entries.size(), 5u);
  EXPECT_EQ(entries[0], (MountEntry{36, 35, {98, 0}, "/mnt1", "/mnt/parent", "ext3", "/dev/root"}));
  EXPECT_EQ(entries[1].mountPoint, "/media/user/NO NAME");
  EXPECT_EQ(entries[1].device, (DeviceNumber{8, 17}));
  EXPECT_EQ(entries[2].mountPoint, "/media/tab\tand\nnewline\\slash");
  EXPECT_EQ(entries[3].fileSystemType, "fuse.my fs");
  EXPECT_EQ(entries[3].source, "my source");
  // A line without super options still names its type and source.
  EXPECT_EQ(entries[4].source, "/dev/sdb4");
  EXPECT_TRUE(parseMountInfo("").empty());
}

TEST(MountTable, UnescapesOnlyCompleteOctalEscapes) {
  const std::pair<const char*, const char*> cases[] = {
      {R"(a\040b)", "a b"},   {R"(\134)", "\\"},      {R"(end\04)", R"(end\04)"},
      {R"(\0a0)", R"(\0a0)"}, {R"(\777)", R"(\777)"}, {R"(plain)", "plain"},
      {R"(\)", R"(\)"},
  };
  for (const auto& [escaped, plain] : cases)
    EXPECT_EQ(unescapeOctal(escaped), plain) << escaped;
}

TEST(MountTable, ParsesSwaps) {
  EXPECT_EQ(parseSwaps("Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
                       "/dev/sdb2                               partition\t1048572\t\t0\t\t-2\n"
                       "/swap\\040file                           file\t\t524284\t\t0\t\t-3\n"),
            (std::vector<std::string>{"/dev/sdb2", "/swap file"}));
  EXPECT_TRUE(parseSwaps("Filename Type Size Used Priority\n").empty());
  EXPECT_TRUE(parseSwaps("").empty());
}

TEST(MountTable, DeviceNumbers) {
  EXPECT_EQ(DeviceNumber::parse("8:16\n"), (DeviceNumber{8, 16}));
  EXPECT_EQ(DeviceNumber::parse(" 259:0 "), (DeviceNumber{259, 0}));
  for (const char* bad : {"", "8", "8:", ":1", "a:b", "8:16:1", "-1:2", "8 :16"}) {
    EXPECT_EQ(DeviceNumber::parse(bad), std::nullopt) << bad;
  }
  EXPECT_EQ((DeviceNumber{8, 16}).toString(), "8:16");
  EXPECT_LT((DeviceNumber{8, 16}), (DeviceNumber{8, 17}));
}

TEST(UdevProperties, ParsesPropertiesAndUnescapesLabels) {
  const auto properties = parseUdevProperties(
      "S:disk/by-label/MY\\x20CARD\nE:ID_FS_LABEL=MY_CARD\nE:ID_FS_LABEL_ENC=MY\\x20CARD\n"
      "E:EMPTY=\nG:systemd\nE:=novalue\nE:WITH=equals=inside");
  EXPECT_EQ(properties.size(), 4u);
  EXPECT_EQ(properties.at("ID_FS_LABEL"), "MY_CARD");
  EXPECT_EQ(properties.at("EMPTY"), "");
  EXPECT_EQ(properties.at("WITH"), "equals=inside");
  EXPECT_EQ(unescapeUdev(properties.at("ID_FS_LABEL_ENC")), "MY CARD");
  EXPECT_EQ(unescapeUdev(R"(a\x2fb\xZZ\x4)"), R"(a/b\xZZ\x4)");
}

}  // namespace
}  // namespace vellum
