/* Prints the version of the library that is loaded, which may be newer than the header that the host was built with. */
#define _GNU_SOURCE
#include <link.h>
#include <stdio.h>
#include <string.h>

#include <tarn/oneapi.h>

static size_t padded(size_t size) {
    return (size + 3) / 4 * 4;
}

/* Looks for the note in a loaded object; ends the search where there is one. */
static int find_note(struct dl_phdr_info* object, size_t size, void* version) {
    (void)size;
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const ElfW(Phdr)* const segment = &object->dlpi_phdr[i];
        if (segment->p_type != PT_NOTE || segment->p_align > 4)
            continue;
        const char* at = (const char*)object->dlpi_addr + segment->p_vaddr;
        const char* const end = at + segment->p_memsz;
        while (at < end) {
            ElfW(Nhdr) note;
            memcpy(&note, at, sizeof note);
            const char* const owner = at + sizeof note;
            const char* const content = owner + padded(note.n_namesz);
            if (note.n_type == 1 && strcmp(owner, "Tarn.oneAPI") == 0) {
                memcpy(version, content, 3 * sizeof(uint32_t));
                return 1;
            }
            at = content + padded(note.n_descsz);
        }
    }
    return 0;
}

int main(void) {
    DestroySyclQueue(NULL); /* does nothing, but without a call the linker may leave the library out */
    uint32_t version[3];
    if (!dl_iterate_phdr(find_note, version)) {
        puts("the library has no version note");
        return 1;
    }
    printf("header %d.%d.%d, library %u.%u.%u\n", TARN_ONEAPI_VERSION_MAJOR, TARN_ONEAPI_VERSION_MINOR,
           TARN_ONEAPI_VERSION_PATCH, version[0], version[1], version[2]);
    return version[0] != TARN_ONEAPI_VERSION_MAJOR;
}
