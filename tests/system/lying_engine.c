/* What makes the DDS engine of a link lie about what its machine may do: in the place of the
 * engine's access control it permits all at home, and leaves it to others to check. Loaded before
 * the program it has the link publish in the partition LIE_PUBLISH_IN, and the clock go back by
 * LIE_DAYS. In C, since the engine's own headers are no C++. */
#define _GNU_SOURCE
#include <dds/dds.h>
#include <dds/security/dds_security_api.h>
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static void* real(char const* name) {
    static void* plugin;
    if (plugin == NULL)
        plugin = dlopen(getenv("LIE_IN_PLACE_OF"), RTLD_NOW);
    return dlsym(plugin, name);
}

static DDS_Security_boolean permit() {
    return 1;
}

int init_access_control(char const* argument, void** context, struct ddsi_domaingv* domain) {
    int (*const begin)(char const*, void**, struct ddsi_domaingv*) = real(__func__);
    int const result = begin(argument, context, domain);
    if (result != 0)
        return result;
    dds_security_access_control* const control = *context;
    control->check_create_participant = (void*)permit;
    control->check_create_topic = (void*)permit;
    control->check_create_datawriter = (void*)permit;
    control->check_create_datareader = (void*)permit;
    return 0;
}

int finalize_access_control(void* context) {
    int (*const end)(void*) = real(__func__);
    return end(context);
}

void dds_qset_partition1(dds_qos_t* qos, char const* name) {
    char const* const lie = getenv("LIE_PUBLISH_IN");
    if (lie != NULL && strcmp(name, "*") != 0)
        name = lie;
    dds_qset_partition(qos, 1, &name);
}

static time_t lie_in_seconds(void) {
    char const* const days = getenv("LIE_DAYS");
    return days == NULL ? 0 : 86400 * (time_t)atol(days);
}

int clock_gettime(clockid_t clock, struct timespec* result) {
    static int (*tell)(clockid_t, struct timespec*);
    if (tell == NULL)
        tell = dlsym(RTLD_NEXT, "clock_gettime");
    int const error = tell(clock, result);
    if (error == 0 && clock == CLOCK_REALTIME)
        result->tv_sec -= lie_in_seconds();
    return error;
}

time_t time(time_t* result) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (result != NULL)
        *result = now.tv_sec;
    return now.tv_sec;
}
