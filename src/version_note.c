/* The version of the library where a loader finds it without a symbol: an ELF note. */
#include <tarn/oneapi.h>

#ifdef __ELF__
typedef struct VersionNote {
    uint32_t owner_size;
    uint32_t content_size;
    uint32_t type;
    char owner[12];
    uint32_t version[3];
} VersionNote;

__attribute__((used, aligned(4), section(".note.tarn.oneapi"))) static const VersionNote note = {
    .owner_size = sizeof note.owner,
    .content_size = sizeof note.version,
    .type = 1,
    .owner = "Tarn.oneAPI",
    .version = {TARN_ONEAPI_VERSION_MAJOR, TARN_ONEAPI_VERSION_MINOR, TARN_ONEAPI_VERSION_PATCH}};
#endif
