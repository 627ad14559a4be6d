#pragma once
/// Everything of the data model, its memory and its geometry.

#include <model/Forward.hpp>
#include <model/hestra/Ageable.hpp>
#include <model/hestra/Cache.hpp>
#include <model/hestra/Chunk.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Creator.hpp>
#include <model/hestra/Interface.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/hestra/Reference.hpp>
#include <model/vantle/Bundle.hpp>
#include <model/vantle/GridKinds.hpp>
