#include "utilc/uuid.h"

#include <cstdio>
#include <cstring>

#include "utilc/randbytes.h"

namespace {

constexpr size_t kTextLength = 36;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsDashPosition(size_t i) {
  return i == 8 || i == 13 || i == 18 || i == 23;
}

}  // namespace

void uuid_create(_uuid_t* uuid) {
  randbytes(uuid->bytes, sizeof(uuid->bytes));
  uuid->bytes[6] = static_cast<unsigned char>((uuid->bytes[6] & 0x0f) | 0x40);
  uuid->bytes[8] = static_cast<unsigned char>((uuid->bytes[8] & 0x3f) | 0x80);
}

int uuid_scan(const char* text, _uuid_t* uuid) {
  if (text == nullptr) return -1;
  const bool braced = text[0] == '{';
  const char* digits = braced ? text + 1 : text;
  if (strnlen(digits, kTextLength) != kTextLength) return -1;
  if (strcmp(digits + kTextLength, braced ? "}" : "") != 0) return -1;

  _uuid_t parsed = {};
  size_t nibble = 0;
  for (size_t i = 0; i < kTextLength; ++i) {
    if (IsDashPosition(i)) {
      if (digits[i] != '-') return -1;
      continue;
    }
    const int value = HexValue(digits[i]);
    if (value < 0) return -1;
    unsigned char& byte = parsed.bytes[nibble / 2];
    byte = static_cast<unsigned char>(byte << 4 | value);
    ++nibble;
  }
  *uuid = parsed;
  return 0;
}

int uuid_compare(const _uuid_t* left, const _uuid_t* right) {
  return memcmp(left->bytes, right->bytes, sizeof(left->bytes));
}

void uuid_sprint(const _uuid_t* uuid, char text[37]) {
  uuid_sprintf(uuid,
               "%02hhx%02hhx%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx-"
               "%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx",
               text, kTextLength + 1);
}

int uuid_sprintf(const _uuid_t* uuid, const char* format, char* text, size_t size) {
  const unsigned char* b = uuid->bytes;
  return snprintf(text, size, format, b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9],
                  b[10], b[11], b[12], b[13], b[14], b[15]);
}
