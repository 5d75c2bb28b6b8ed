#pragma once
// Address patterns and wildcard matching.
#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/OSCAddressPattern.hpp"
#include "osc/pattern/OSCAddressPatternToken.hpp"
#include "osc/pattern/OSCCompiledPattern.hpp"
