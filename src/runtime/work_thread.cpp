#include "runtime/work_thread.h"

#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>

#include "runtime/log.h"
#include "runtime/stop.h"
#include "runtime/thread_watch.h"

constexpr size_t STACK_SIZE = 512 * 1024;

static int attributes_set(pthread_attr_t *attr)
{
    int stack_result = pthread_attr_setstacksize(attr, STACK_SIZE);
    if (stack_result != 0) {
        log_error("pthread_attr_setstacksize()->errno: %s", strerror(stack_result));
        return -1;
    }
    int scope_result = pthread_attr_setscope(attr, PTHREAD_SCOPE_SYSTEM);
    int detach_result = pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
    if (scope_result != 0 || detach_result != 0) {
        log_error("pthread_attr_setXXX fail err: %s", strerror(scope_result | detach_result));
        return -1;
    }
    return 0;
}

// The new thread inherits the caller's signal mask: the signals that end the process are main's alone.
static int create_with_signals_blocked(const pthread_attr_t *attr, void *(*body)(void *), void *arg)
{
    sigset_t stop_signals, before;
    stop_signals_fill(&stop_signals);
    pthread_t thread;
    pthread_sigmask(SIG_BLOCK, &stop_signals, &before);
    int result = pthread_create(&thread, attr, body, arg);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result;
}

int create_work_thread(void *(*body)(void *), void *arg)
{
    if (!body) {
        log_error("function is NULL!");
        return -1;
    }
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        log_error("pthread_attr_init()->errno");
        return -1;
    }
    int result = attributes_set(&attr);
    if (result == 0) {
        int error_number = create_with_signals_blocked(&attr, body, arg);
        if (error_number != 0) {
            log_error("pthread_create fail err: %s", strerror(error_number));
            result = -1;
        }
    }
    pthread_attr_destroy(&attr);
    return result;
}

void work_thread_set_name(const char *name)
{
    prctl(PR_SET_NAME, name); // truncates; pthread_setname_np would refuse a long name
    thread_watch_name(name);
}

static void *work_thread_body(void *arg)
{
    WorkThread *thread = (WorkThread *)arg;
    work_thread_set_name(thread->name);
    log_info("%s thread started.", thread->name);
    thread->exited = 0;
    while (!g_exit_flag) {
        thread_watch_begin();
        thread->turn();
    }
    thread_watch_leave();
    thread->exited = 1;
    log_info("%s thread exited.", thread->name);
    thread->gone = 1;
    return arg;
}

int work_thread_start(WorkThread *thread)
{
    thread->gone = 0;
    if (create_work_thread(work_thread_body, thread) != 0) {
        thread->gone = 1;
        log_error("%s", thread->start_failed);
        return -1;
    }
    return 0;
}
