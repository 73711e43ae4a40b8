#include "system/guard.h"

struct Guard::Process {};
Guard::Guard(std::function<void()>) {}
Guard::~Guard() = default;
void Guard::arm(bool) {}
