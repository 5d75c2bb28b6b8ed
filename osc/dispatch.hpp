#pragma once
// Serial queues, a shared concurrent pool, readiness and timer sources.
#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/dispatch/GlobalQueue.hpp"
#include "osc/dispatch/ManualQueue.hpp"
#include "osc/dispatch/ReadinessSource.hpp"
#include "osc/dispatch/RunLoop.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/dispatch/TimerSource.hpp"
