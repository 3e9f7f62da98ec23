#include <gtest/gtest.h>

#include "core/Config.h"
#include "core/Error.h"

using namespace Corvo::Core;

TEST(Config, StartupSwitchesAreTakenOutAndSetKeys) {
  Config::clear();
  auto rest = Config::takeStartupSwitches(
      {"kdisk", "1", "/noosdisk", "/CRE", "/AD=a.img", "/ADDDISK=b.img", "/usbtimeout=30", "/NOOSLAYOUT"});
  EXPECT_EQ(rest, (std::vector<std::string>{"kdisk", "1", "/CRE"}));
  EXPECT_TRUE(Config::getBool("OsDrive::Disable", false));
  EXPECT_TRUE(Config::getBool("Disk::noOsLayout", false));
  EXPECT_EQ(Config::getInt("Usb::EnumerationTimeout", 0), 30);
  EXPECT_EQ(Config::getList(Config::kAddDiskKey), (std::vector<std::string>{"a.img", "b.img"}));
  EXPECT_FALSE(Config::getBool("Usb::Disable", false));
  Config::clear();
}

TEST(Config, BadStartupSwitchValuesNameTheSwitch) {
  const char* bad[] = {"/USBTIMEOUT=abc", "/USBTIMEOUT", "/NOUSB=1", "/ADDDISK", "/AD="};
  for (const char* arg : bad) {
    Config::clear();
    try {
      Config::takeStartupSwitches({"kdisk", arg});
      ADD_FAILURE() << arg << " was accepted";
    } catch (const Error& e) {
      EXPECT_EQ(e.id(), ErrorId::BadStartupSwitch) << arg;
      EXPECT_NE(e.text().find("/"), std::string::npos) << e.text();
    }
  }
  Config::clear();
}
