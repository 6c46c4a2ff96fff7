// The failure hooks of the C++ library, for tarn-info alone (linked into that program, not
// into the daemon's library). tarn-info is built without exceptions, so the library's throws
// would only end the process: these end it at once with abort(). Defining them here keeps the
// library's exception classes, unwinder and name demangler (about 100 KB) out of the program.
#include <cstdlib>
#include <new>

namespace std {

void __throw_bad_alloc() {
    abort();
}
void __throw_bad_array_new_length() {
    abort();
}
void __throw_length_error(const char *) {
    abort();
}
void __throw_logic_error(const char *) {
    abort();
}
void __throw_out_of_range(const char *) {
    abort();
}
void __throw_out_of_range_fmt(const char *, ...) {
    abort();
}
void __throw_invalid_argument(const char *) {
    abort();
}

}  // namespace std

namespace __gnu_cxx {

void __verbose_terminate_handler() {
    abort();
}

}  // namespace __gnu_cxx

void *operator new(std::size_t size) {
    void *p = malloc(size == 0 ? 1 : size);
    if (p == nullptr) {
        abort();
    }
    return p;
}

void operator delete(void *p) noexcept {
    free(p);
}

void operator delete(void *p, std::size_t) noexcept {
    free(p);
}
