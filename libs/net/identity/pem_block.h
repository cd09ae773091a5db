#pragma once

#include "orvan/net/export.h"

namespace orvan::net {

// Base64 (RFC 4648, 4) in the form of a PEM body: "=" at the end, no line breaks, no terminator. Nothing in
// this library uses these two.
//
// Threads: any.
// Errors:  0 is success, 1 a text that is none; the output and its length are undefined then.

// Encodes `block_length` bytes. `encoded` has room for 4 bytes for every 3 bytes begun; `encoded_length` gets
// how many were written.
ORVAN_NET_EXPORT int R_EncodePEMBlock(unsigned char* encoded, unsigned int* encoded_length,
                                      unsigned char* block, unsigned int block_length);
// Decodes `encoded_length` characters. `block` has room for 3 bytes for every 4 characters.
ORVAN_NET_EXPORT int R_DecodePEMBlock(unsigned char* block, unsigned int* block_length,
                                      unsigned char* encoded, unsigned int encoded_length);

}  // namespace orvan::net
