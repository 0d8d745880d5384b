#include "PrivateBus.h"

namespace {

[[maybe_unused]] const bool registered = fake::RegisterPrivateBus();

}  // namespace
