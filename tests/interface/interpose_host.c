// A host process that defines routines with the same names as the driver's
// (common names such as crc16, insert, list_add). The driver's own calls must
// still reach its own definitions.
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kplc/kplc.h"

// Clashing definitions that would break the driver if its calls bound here.
unsigned int crc16(unsigned char *puchMsg, unsigned char usDataLen) { return (void)puchMsg, (void)usDataLen, 0; }
void insert(char *str, char *pch, int pos) { (void)str, (void)pch, (void)pos; }
void list_add(struct list_head *entry, struct list_head *head) { (void)entry, (void)head; }

static int checks, failures;
static void check(int ok, const char *what) {
    ++checks;
    if (!ok) ++failures, fprintf(stderr, "FAILED: %s\n", what);
}

int main(void) {
    unsigned char digits[] = "123456789";
    check(crc16(digits, 9) == 0, "the host's own crc16 is the host's");

    // The library's crc16, reached through the library.
    void *lib = dlopen("libkplc.so.0", RTLD_NOW | RTLD_NOLOAD);
    check(lib != NULL, "driver already loaded");
    void *sym = lib ? dlsym(lib, "crc16") : NULL;
    unsigned int (*lib_crc16)(unsigned char *, unsigned char) = NULL;
    memcpy(&lib_crc16, &sym, sizeof lib_crc16);
    check(lib_crc16 != NULL && lib_crc16(digits, 9) == 0x374B, "the library's crc16 keeps its behaviour");

    // The parser inserts '#' after '[' through insert(): Arr[3] -> Arr[#3].
    kplc_tag_str tag;
    memset(&tag, 0, sizeof tag);
    char line[] = "1,Arr[3],INT,,2,,DM10,-1\n";
    kplc_pase_str(line, &tag);
    check(strcmp(tag.name, "Arr[#3]") == 0, "kplc_pase_str binds to the library's insert");

    // Registering links the entry in through list_add().
    kplc_plc_tag head;
    kplc_init_tag(&head);
    char name[] = "table";
    check(kplc_add_tagtable(&head, name, &tag, 1) == 1, "registered");
    kplc_plc_tag *entry = kplc_get_tagtable(&head, name);
    check(entry != NULL, "kplc_add_tagtable binds to the library's list_add");
    if (entry != NULL) { /* the registry never releases entries; the test does */
        free(entry->name);
        free(entry);
    }

    printf("%d passed, %d failed\n", checks - failures, failures);
    return failures == 0 ? 0 : 1;
}
