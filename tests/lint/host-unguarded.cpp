// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
// ./lint proves that clang rejects this file: Get() reads a guarded field without its lock. Its twin holds the lock.
#include "thread_safety.h"

class Guarded {
public:
    int Get() { return m_value; }

private:
    host::Mutex m_mutex;
    int m_value GUARDED_BY(m_mutex) = 0;
};

int main() {
    return Guarded().Get();
}
