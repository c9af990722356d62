#ifndef VIGILA_CLIENT_VIGILA_XML_C_H_
#define VIGILA_CLIENT_VIGILA_XML_C_H_

/*
 * Reads the WS-Security UsernameToken out of a SOAP request, in chunks as they arrive.
 *
 * Ownership: the caller owns the reader and destroys it; texts belong to the reader and live until
 * then. Threads: one thread at a time per reader; readers are independent of each other.
 *
 * Values are raw: entities, CDATA sections and comments are not decoded. A caller takes the fields
 * once vigila_xml_parse has returned 0 and passes them to vigila_authenticate_wsse; a field that is
 * null means that the request carried no usable token.
 */

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vigila_xml vigila_xml;

vigila_xml* vigila_xml_create(void);
/* -1 while more input is wanted, 0 once the reader has stopped: at the end of the security header
 * or at something malformed. */
int vigila_xml_parse(vigila_xml* reader, const char* data, unsigned long length);
/* 2 before an Envelope has opened, 1 inside Security but outside UsernameToken, else 0. */
int vigila_xml_result(const vigila_xml* reader);
const char* vigila_xml_username(const vigila_xml* reader);
const char* vigila_xml_password(const vigila_xml* reader);
const char* vigila_xml_type(const vigila_xml* reader);
const char* vigila_xml_nonce(const vigila_xml* reader);
const char* vigila_xml_created(const vigila_xml* reader);
/* A null reader is ignored; every other function wants a reader. */
void vigila_xml_destroy(vigila_xml* reader);

#ifdef __cplusplus
}
#endif

#endif /* VIGILA_CLIENT_VIGILA_XML_C_H_ */
