#include "fixture.h"
