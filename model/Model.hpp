#pragma once
/// Everything of the data model, its memory and its geometry.

#include <model/Forward.hpp>
#include <model/Version.hpp>
#include <model/hestra/Ageable.hpp>
#include <model/hestra/Cache.hpp>
#include <model/hestra/Chunk.hpp>
#include <model/hestra/Console.hpp>
#include <model/hestra/Creator.hpp>
#include <model/hestra/Diagnostics.hpp>
#include <model/hestra/Environment.hpp>
#include <model/hestra/Freshness.hpp>
#include <model/hestra/Interface.hpp>
#include <model/hestra/Profiler.hpp>
#include <model/hestra/Reference.hpp>
#include <model/orvix/CellMap.hpp>
#include <model/orvix/Clipping.hpp>
#include <model/orvix/Eigen.hpp>
#include <model/orvix/KDTree.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/Bundle.hpp>
#include <model/vantle/DataRangeBase.hpp>
#include <model/vantle/Derived.hpp>
#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/GridKinds.hpp>
#include <model/vantle/PullData.hpp>
