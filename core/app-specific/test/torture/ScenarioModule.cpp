#include <cerrno>
#include <dlfcn.h>
#include <pthread.h>

// Part of the module: the stand-ins that it can't take from the program as they are.

namespace
{

template<typename Function>
Function* ofTheProgram(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_DEFAULT, name));
}

} // namespace

extern "C" {

int __real_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)());

// The compiler's own library has a function of this name, and would give it to the module instead.
int __wrap_pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument)
{
    static auto* const create = ofTheProgram<decltype(::pthread_create)>("__wrap_pthread_create");
    return create(handle, attributes, function, argument);
}

// The handlers of a module go with it only if it has registered them itself.
int __wrap_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)())
{
    static auto* const fails = ofTheProgram<bool()>("atforkFails");
    return fails != nullptr && fails() ? ENOMEM : __real_pthread_atfork(prepare, parent, child);
}

} // extern "C"
