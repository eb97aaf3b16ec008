// The string library's constant strings, built once at start-up (before the topology is
// read) and destroyed last at exit. They are plain strings on the exported malloc: built
// while the start-up heap serves, their arrays live there.
#pragma once

#include "foundation/quorla_string_class.h"

namespace quorla {

extern string g_str_empty;             // ""
extern string g_str_blank;             // " "
extern string g_str_ampersand;         // "&"
extern string g_str_equal;             // "="
extern string g_str_colon;             // ":"
extern string g_str_minus;             // "-"
extern string g_str_comma;             // ","
extern string g_str_zero;              // "0"
extern string g_str_blank_zero;        // " 0"
extern string g_str_blank_zero_blank;  // " 0 "
extern string g_str_zero_blank;        // "0 "
extern string g_str_crlf;              // "\r\n"
extern string g_str_crlf_crlf;         // "\r\n\r\n"
extern string g_str_crlf_end_crlf;     // "\r\nEND\r\n"
extern string g_str_end_crlf;          // "END\r\n"
extern string g_str_close;             // "close"
extern string g_str_txt;               // ".txt"
extern string g_str_double_blank;      // "  "

}  // namespace quorla
