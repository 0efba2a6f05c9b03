#include "core/footprint.h"

#include <cstddef>
#include <cstdint>
#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

#ifdef __GLIBC__
constexpr int MAPPED_BLOCK_SIZE = 128 * 1024; // the library's own default, held where it is
#endif

// Code that was relocated where it stands cannot be had from its file again.
bool _has_text_relocations(const dl_phdr_info* object) {
    for (int i = 0; i < object->dlpi_phnum; i++) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[i];
        if (segment.p_type != PT_DYNAMIC) {
            continue;
        }
        const ElfW(Dyn)* entry =
            reinterpret_cast<const ElfW(Dyn)*>(object->dlpi_addr + segment.p_vaddr);
        for (; entry->d_tag != DT_NULL; entry++) {
            if (entry->d_tag == DT_TEXTREL ||
                (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL) != 0)) {
                return true;
            }
        }
    }
    return false;
}

void _release_segment(uintptr_t begin, uintptr_t end) {
    uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    begin = (begin + page - 1) & ~(page - 1);
    end &= ~(page - 1);
    if (begin < end) {
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_DONTNEED);
    }
}

int _release_object(dl_phdr_info* object, size_t /*size*/, void* /*data*/) {
    if (_has_text_relocations(object)) {
        return 0;
    }
    for (int i = 0; i < object->dlpi_phnum; i++) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_W) == 0) {
            uintptr_t begin = object->dlpi_addr + segment.p_vaddr;
            _release_segment(begin, begin + segment.p_memsz);
        }
    }
    return 0;
}

} // namespace

void set_up_memory() {
#ifdef __GLIBC__
    mallopt(M_MMAP_THRESHOLD, MAPPED_BLOCK_SIZE);
    mallopt(M_ARENA_MAX, 1); // two threads that allocate little need no arena each
#endif
}

void release_idle_memory() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
    dl_iterate_phdr(_release_object, nullptr);
}
