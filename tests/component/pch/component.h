#include "Daemon.h"
