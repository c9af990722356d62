#include "vigila/client/vigila_xml_c.h"

#include "vigila/client/vigila_xml.h"

struct vigila_xml {
  vigila::client::VigilaXml reader;
};

#define VIGILA_C_EXPORT extern "C" __attribute__((visibility("default")))

VIGILA_C_EXPORT vigila_xml* vigila_xml_create(void) {
  return new vigila_xml;
}

// Deliberate: -1 means unfinished, 0 stopped. Callers feed "while it returns non-zero".
VIGILA_C_EXPORT int vigila_xml_parse(vigila_xml* reader, const char* data, unsigned long length) {
  return reader->reader.Parse(data, length) ? 0 : -1;
}

VIGILA_C_EXPORT int vigila_xml_result(const vigila_xml* reader) {
  return reader->reader.Result();
}

VIGILA_C_EXPORT const char* vigila_xml_username(const vigila_xml* reader) {
  return reader->reader.Username();
}

VIGILA_C_EXPORT const char* vigila_xml_password(const vigila_xml* reader) {
  return reader->reader.Password();
}

VIGILA_C_EXPORT const char* vigila_xml_type(const vigila_xml* reader) {
  return reader->reader.Type();
}

VIGILA_C_EXPORT const char* vigila_xml_nonce(const vigila_xml* reader) {
  return reader->reader.Nonce();
}

VIGILA_C_EXPORT const char* vigila_xml_created(const vigila_xml* reader) {
  return reader->reader.Created();
}

VIGILA_C_EXPORT void vigila_xml_destroy(vigila_xml* reader) {
  delete reader;
}
