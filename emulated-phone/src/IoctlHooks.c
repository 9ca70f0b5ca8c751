#define _GNU_SOURCE
#include "IoctlHooks.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <sys/socket.h>

typedef int (*IoctlFunction)(int, unsigned long, ...);
typedef int (*CloseFunction)(int);
typedef int (*BindFunction)(int, const struct sockaddr*, socklen_t);

static EmuphoneIoctlHook ioctlHook;
static EmuphoneCloseHook closeHook;
static EmuphoneListenerChangeHook listenerChangeHook;
static EmuphoneListenerChangedHook listenerChangedHook;

void emuphone_set_hooks(EmuphoneIoctlHook onIoctl, EmuphoneCloseHook onClose)
{
    __atomic_store_n(&ioctlHook, onIoctl, __ATOMIC_RELEASE);
    __atomic_store_n(&closeHook, onClose, __ATOMIC_RELEASE);
}

/* The second hook is stored first: a change seen must always hear its end. */
void emuphone_set_listener_hooks(EmuphoneListenerChangeHook change, EmuphoneListenerChangedHook changed)
{
    __atomic_store_n(&listenerChangedHook, changed, __ATOMIC_RELEASE);
    __atomic_store_n(&listenerChangeHook, change, __ATOMIC_RELEASE);
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

static BindFunction NextBind(void)
{
    static BindFunction next;
    BindFunction found = __atomic_load_n(&next, __ATOMIC_ACQUIRE);
    if (!found) {
        found = (BindFunction)dlsym(RTLD_NEXT, "bind");
        __atomic_store_n(&next, found, __ATOMIC_RELEASE);
    }
    return found;
}

static int ListenerChangeBegins(int fd, const struct sockaddr* address)
{
    EmuphoneListenerChangeHook hook = __atomic_load_n(&listenerChangeHook, __ATOMIC_ACQUIRE);
    if (!hook)
        return 0;
    int saved = errno;
    int listener = hook(fd, address);
    errno = saved;
    return listener;
}

static void ListenerChangeEnds(void)
{
    int saved = errno;
    __atomic_load_n(&listenerChangedHook, __ATOMIC_ACQUIRE)();
    errno = saved;
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
    int listener = ListenerChangeBegins(fd, NULL);
    int result = NextClose()(fd);
    if (listener)
        ListenerChangeEnds();
    return result;
}

__attribute__((visibility("default"))) int bind(int fd, const struct sockaddr* address, socklen_t length)
{
    int listener = ListenerChangeBegins(fd, address);
    int result = NextBind()(fd, address, length);
    if (listener)
        ListenerChangeEnds();
    return result;
}

int emuphone_hooks_reach_libraries(void)
{
    return dlsym(RTLD_DEFAULT, "ioctl") == (void*)ioctl;
}
