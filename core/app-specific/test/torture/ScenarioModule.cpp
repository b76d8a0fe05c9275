#include <dlfcn.h>
#include <pthread.h>

// Part of the module: the stand-in that it can't take from the program as it is, for the compiler's own
// library has a function of this name and would give it to the module instead.
extern "C" int __wrap_pthread_create(pthread_t* handle, const pthread_attr_t* attributes,
                                     void* (*function)(void*), void* argument)
{
    void* const create = ::dlsym(RTLD_DEFAULT, "__wrap_pthread_create");
    return reinterpret_cast<decltype(&::pthread_create)>(create)(handle, attributes, function, argument);
}
