/* This library's device id, kept in the registry for each domain and user. */

#include <cstdio>
#include <cstring>

#include "ox_assert.h"
#include "ox_uuid.h"
#include "tnw_log.h"
#include "tnw_start.h"

namespace {

constexpr char ROOT_NAME[] = "HKEY_CURRENT_USER";
constexpr char VALUE_NAME[] = "TarnDeviceID";
constexpr size_t KEY_PATH_SIZE = 256;

/* Whose device id it is, and where it is kept. */
struct DeviceKey {
  const char* domain;
  const char* username;
  char path[KEY_PATH_SIZE];
};

bool read_device_id(const DeviceKey& key, char* idstr) {
  HKEY opened;
  if (RegOpenKeyExA(HKEY_CURRENT_USER, key.path, 0, KEY_READ, &opened) != 0) {
    return false;
  }
  char text[OX_UUID_TEXT_SIZE] = {};
  DWORD size = sizeof text;
  const LSTATUS status =
      RegGetValueA(opened, nullptr, VALUE_NAME, RRF_RT_REG_SZ, nullptr, text, &size);
  RegCloseKey(opened);
  if (status != 0 || text[0] == 0) {
    return false; /* an empty value is no id */
  }
  memcpy(idstr, text, sizeof text);
  TNW_INFO(nullptr,
           "Tarn device id: %s already exist for domain: %s and user: %s at path: %s\\%s\\%s",
           idstr, key.domain, key.username, ROOT_NAME, key.path, VALUE_NAME);
  return true;
}

int store_device_id(const DeviceKey& key, char* idstr) {
  HKEY opened;
  const LSTATUS created =
      RegCreateKeyExA(HKEY_CURRENT_USER, key.path, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_WRITE,
                      nullptr, &opened, nullptr);
  if (created != 0) {
    return TNW_REFUSE(static_cast<int>(created), nullptr, static_cast<int>(created),
                      "Failed to call RegCreateKeyExA with err %u", static_cast<ox_u32>(created));
  }
  ox_u8 id[OX_UUID_SIZE];
  ox_uuid_generate(id);
  ox_uuid_unparse(id, idstr);
  const LSTATUS status =
      RegSetKeyValueA(opened, nullptr, VALUE_NAME, REG_SZ, idstr, OX_UUID_TEXT_SIZE);
  RegCloseKey(opened);
  if (status != 0) {
    return TNW_REFUSE(static_cast<int>(status), nullptr, static_cast<int>(status),
                      "Failed registering for tarn device id for domain: %s and user: %s at path: "
                      "%s\\%s\\%s, err: %u",
                      key.domain, key.username, ROOT_NAME, key.path, VALUE_NAME,
                      static_cast<ox_u32>(status));
  }
  TNW_INFO(nullptr, "Tarn device id: %s is set for domain: %s and user: %s at path: %s\\%s\\%s",
           idstr, key.domain, key.username, ROOT_NAME, key.path, VALUE_NAME);
  return 0;
}

}  // namespace

int tnw_setup_tn_device_id(const char* domain, const char* username, char* idstr) {
  OX_ASSERT_HELD(&tnw_glock);
  if (idstr[0] != 0) {
    return 0;
  }
  DeviceKey key = {domain, username, {}};
  snprintf(key.path, sizeof key.path, "SOFTWARE\\Oxley\\Oxley Drive\\%s\\%s", domain, username);
  if (read_device_id(key, idstr)) {
    return 0;
  }
  return store_device_id(key, idstr);
}
