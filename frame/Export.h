// What the library exports: the framework's interface and nothing else.
#pragma once

#define OSTRAND_API __attribute__((visibility("default")))
