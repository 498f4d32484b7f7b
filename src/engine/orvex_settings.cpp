// What the configuration file sets.
#include "orvexeng.h"
#include "support/orvex_config.h"
#include "support/orvex_log.h"

namespace {
// Messages name the configuration as their source.
constexpr char kSettingsSourceFile[] = "orvex_config";
}  // namespace

unsigned int ORVEX_Config::SetConfig() {
  bool flag = false;
  unsigned int number = 0;
  if (GetConfigBool("LogEnable", flag) == ORVEX_OK) {
    ORVEX_StoreRelaxed(ORVEX_LOG_BASE::LogEnable, flag);
    ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, kSettingsSourceFile, "Set config LogEnable to %d",
                      flag);
  }
  if (GetConfigInteger("LogLevel", number) == ORVEX_OK) {
    ORVEX_StoreRelaxed(ORVEX_LOG_BASE::LogLevel, static_cast<ORVEX_LOG>(number));
    ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, kSettingsSourceFile, "Set config LogLevel to %u",
                      number);
  }
  if (GetConfigBool("DatabaseEnable", flag) == ORVEX_OK) {
    orvex_db_set_enable(flag);
    ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, kSettingsSourceFile,
                      "Set config DatabaseEnable to %d", flag);
  }
  if (GetConfigBool("ProfilingEnable", flag) == ORVEX_OK) {
    orvex_profiling_set_enable(flag);
    ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, kSettingsSourceFile,
                      "Set config ProfilingEnable to %d", flag);
  }
  if (GetConfigInteger("CacheCapacity", number) == ORVEX_OK) {
    orvex_set_cache_capacity(ORVEX_HASH_CACHE, static_cast<int>(number));
    ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, kSettingsSourceFile,
                      "Set config CacheCapacity to %u", number);
  }
  return ORVEX_OK;
}
