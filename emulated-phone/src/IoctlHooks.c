#define _GNU_SOURCE
#include "IoctlHooks.h"

#include <dlfcn.h>
#include <stdarg.h>
#include <stddef.h>

typedef int (*IoctlFunction)(int, unsigned long, ...);
typedef int (*CloseFunction)(int);

static EmuphoneIoctlHook ioctlHook;
static EmuphoneCloseHook closeHook;

void emuphone_set_hooks(EmuphoneIoctlHook onIoctl, EmuphoneCloseHook onClose)
{
    __atomic_store_n(&ioctlHook, onIoctl, __ATOMIC_RELEASE);
    __atomic_store_n(&closeHook, onClose, __ATOMIC_RELEASE);
}

static IoctlFunction NextIoctl(void)
{
    static IoctlFunction next;
    IoctlFunction found = __atomic_load_n(&next, __ATOMIC_ACQUIRE);
    if (!found) {
        found = (IoctlFunction)dlsym(RTLD_NEXT, "ioctl");
        __atomic_store_n(&next, found, __ATOMIC_RELEASE);
    }
    return found;
}

static CloseFunction NextClose(void)
{
    static CloseFunction next;
    CloseFunction found = __atomic_load_n(&next, __ATOMIC_ACQUIRE);
    if (!found) {
        found = (CloseFunction)dlsym(RTLD_NEXT, "close");
        __atomic_store_n(&next, found, __ATOMIC_RELEASE);
    }
    return found;
}

/* ioctl takes at most one argument word, pointer or integer; passing it on as
 * a pointer is what umockdev's own preload does. */
__attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    EmuphoneIoctlHook hook = __atomic_load_n(&ioctlHook, __ATOMIC_ACQUIRE);
    int result;
    if (hook && hook(fd, request, argument, &result))
        return result;
    return NextIoctl()(fd, request, argument);
}

__attribute__((visibility("default"))) int close(int fd)
{
    EmuphoneCloseHook hook = __atomic_load_n(&closeHook, __ATOMIC_ACQUIRE);
    if (hook)
        hook(fd);
    return NextClose()(fd);
}

int emuphone_hooks_reach_libraries(void)
{
    return dlsym(RTLD_DEFAULT, "ioctl") == (void*)ioctl;
}
