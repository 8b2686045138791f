#pragma once

#include <windows.h>

#include <gtest/gtest.h>
#include <string>

/// While the object lives, HKEY_CURRENT_USER is a key of this process's own: programs may run side by side.
class UserHive {
 public:
  UserHive() {
    HKEY hive = nullptr;
    EXPECT_EQ(RegCreateKeyA(HKEY_CURRENT_USER, m_name.c_str(), &hive), ERROR_SUCCESS);
    EXPECT_EQ(RegOverridePredefKey(HKEY_CURRENT_USER, hive), ERROR_SUCCESS);
    RegCloseKey(hive);
  }
  ~UserHive() {
    RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
    RegDeleteTreeA(HKEY_CURRENT_USER, m_name.c_str());
  }

 private:
  const std::string m_name = "SOFTWARE\\VStabilizeTests." + std::to_string(GetCurrentProcessId());
};
