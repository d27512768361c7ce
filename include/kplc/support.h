/* Support library: text encoding, bit-field copy, number helpers, utilities. */
#ifndef KPLC_SUPPORT_H
#define KPLC_SUPPORT_H

#include <stdint.h>

#include "kplc/api.h"
#include "kplc/records.h"

KPLC_BEGIN_DECLS

/* UTF-8 <-> 16-bit code units. */
KPLC_API int utf8ToUnicodeChar(unsigned char *ch, int *unicode);
KPLC_API int utf8ToUnicode(unsigned char *utf8_str, unsigned short *unicode_str, int unicode_str_size);
KPLC_API void unicodeToUtf8(unsigned char *unicode, int len, unsigned char *utf8);

/* Bit-field copy and number helpers. */
KPLC_API unsigned char *BatchReadWord(const void *src, void *dst, int bitTh, int bitLen);
KPLC_API unsigned char *BatchReadWord2(const void *src, void *dst, int bitTh, int bitLen, const void *src2);
KPLC_API int getIndexOfSigns(char ch);
KPLC_API long hexToDec(char *source, int nlen);
KPLC_API int mathN(int result, int n);
KPLC_API u32 bit2byte_len(u32 bit_len);
KPLC_API u32 bit2word_len(u32 bit_len);

/* Utilities. */
KPLC_API void zel_sleep_ms(unsigned int ms);
KPLC_API void zel_sleep(unsigned int times);
KPLC_API void zel_srand(void);
KPLC_API void zel_log(char *szFileName, const char *format, ...) __attribute__((format(printf, 2, 3)));
KPLC_API void dump_b(unsigned char *buf, int len);
KPLC_API void _dump(const char *prefix, unsigned char *buf, int len);
KPLC_API unsigned int crc16(unsigned char *puchMsg, unsigned char usDataLen);
KPLC_API int CalcFileMD5(char *filename, char *md5_sum);
KPLC_API int Read_File(char *file_addr, char *buf, int addr, int nWords);
KPLC_API int Write_File(char *file_addr, const char *buf, int addr, int nWords);
KPLC_API int printf_log(const char *fmt, ...);

KPLC_END_DECLS

#endif
