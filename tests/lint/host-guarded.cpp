// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
// ./lint proves that clang accepts this file: Get() holds the lock of the guarded field that it reads.
#include "thread_safety.h"

class Guarded {
public:
    int Get() {
        const host::Guard lock(m_mutex);
        return m_value;
    }

private:
    host::Mutex m_mutex;
    int m_value GUARDED_BY(m_mutex) = 0;
};

int main() {
    return Guarded().Get();
}
