// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
// ./lint proves that clang accepts this file: Get() holds the lock of the guarded field that it reads.
#include "KVMutex.h"

class Guarded {
public:
    int Get() {
        const NKavrel::KVLockGuard lock(m_mutex);
        return m_value;
    }

private:
    NKavrel::KVMutex m_mutex;
    int m_value KV_GUARDED_BY(m_mutex) = 0;
};

int main() {
    return Guarded().Get();
}
