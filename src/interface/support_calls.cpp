// The exported routines of the support library: text encoding, bit-field
// copy, number helpers and utilities.
#include <cstdarg>

#include "kplc/support.h"
#include "support/bit_fields.hpp"
#include "support/crc16.hpp"
#include "support/text_encoding.hpp"
#include "support/utilities.hpp"

namespace sp = kplc::support;

extern "C" {

KPLC_API int utf8ToUnicodeChar(unsigned char *ch, int *unicode) { return kplc::utf8_char_value(ch, unicode); }

KPLC_API int utf8ToUnicode(unsigned char *utf8_str, unsigned short *unicode_str, int unicode_str_size) {
    return kplc::utf8_to_units(utf8_str, unicode_str, unicode_str_size);
}

KPLC_API void unicodeToUtf8(unsigned char *unicode, int len, unsigned char *utf8) {
    kplc::units_to_utf8(unicode, len, utf8);
}

KPLC_API unsigned char *BatchReadWord(const void *src, void *dst, int bitTh, int bitLen) {
    return sp::copy_word_bits(src, dst, bitTh, bitLen);
}

KPLC_API unsigned char *BatchReadWord2(const void *src, void *dst, int bitTh, int bitLen, const void *src2) {
    return sp::copy_word_bits2(src, dst, bitTh, bitLen, src2);
}

KPLC_API int getIndexOfSigns(char ch) { return sp::hex_digit_value(ch); }

KPLC_API long hexToDec(char *source, int nlen) { return sp::hex_to_number(source, nlen); }

KPLC_API int mathN(int result, int n) { return sp::doubled(result, n); }

KPLC_API u32 bit2byte_len(u32 bit_len) { return sp::bytes_for_bits(bit_len); }

KPLC_API u32 bit2word_len(u32 bit_len) { return sp::words_for_bits(bit_len); }

KPLC_API void zel_sleep_ms(unsigned int ms) { sp::sleep_ms(ms); }

KPLC_API void zel_sleep(unsigned int times) { sp::sleep_micro(times); }

KPLC_API void zel_srand(void) { sp::seed_random(); }

KPLC_API void zel_log(char *szFileName, const char *format, ...) {
    va_list args;
    va_start(args, format);
    sp::append_log(szFileName, format, args);
    va_end(args);
}

KPLC_API void dump_b(unsigned char *buf, int len) { sp::dump_named(buf, len); }

KPLC_API void _dump(const char *prefix, unsigned char *buf, int len) { sp::dump_prefixed(prefix, buf, len); }

KPLC_API unsigned int crc16(unsigned char *puchMsg, unsigned char usDataLen) {
    return kplc::crc::crc16(puchMsg, usDataLen);
}

KPLC_API int CalcFileMD5(char *filename, char *md5_sum) { return sp::file_md5(filename, md5_sum); }

KPLC_API int Read_File(char *file_addr, char *buf, int addr, int nWords) {
    return sp::read_file_range(file_addr, buf, addr, nWords);
}

KPLC_API int Write_File(char *file_addr, const char *buf, int addr, int nWords) {
    return sp::write_file_range(file_addr, buf, addr, nWords);
}

// The debug print of the framework is switched off: it prints nothing.
KPLC_API int printf_log(const char *fmt, ...) {
    (void)fmt;
    return 0;
}

}  // extern "C"
