#pragma once

// Everything is hidden by default; Keel exports what hosts and modules call.
#define KEEL_API __attribute__((visibility("default")))
