// Corvane: the whole public API in one include.
#pragma once

#include <Fundel/Assert.h>
#include <Fundel/Function.h>
#include <Fundel/Log.h>

#include <Corvane/Export.h>
#include <Corvane/NetHandler.h>
#include <Corvane/NetThread.h>
#include <Corvane/TsMemory.h>
