#include "core/Lock.h"

CLock::CLock() {
    pthread_mutex_init(&m_mutex, nullptr);
}

CLock::~CLock() {
    pthread_mutex_destroy(&m_mutex);
}

int CLock::Lock() {
    return pthread_mutex_lock(&m_mutex);
}

int CLock::Unlock() {
    return pthread_mutex_unlock(&m_mutex);
}
