#pragma once
/// Every operation of the library. Inside the project, include the family that is needed instead.

#include <baseop/BlockJoins.hpp>
#include <baseop/CellSearch.hpp>
#include <baseop/DataRange.hpp>
#include <baseop/EvalGrid.hpp>
#include <baseop/ExactCellLocator.hpp>
#include <baseop/ExpandBBox.hpp>
#include <baseop/FragmentSkeleton.hpp>
#include <baseop/GridEvaluator.hpp>
#include <baseop/Interpolate.hpp>
#include <baseop/Isosurface.hpp>
#include <baseop/LocalFromWorldPoint.hpp>
#include <baseop/LocatedPositions.hpp>
#include <baseop/NumberRange.hpp>
#include <baseop/PartialDerivative.hpp>
#include <baseop/PointCloud.hpp>
#include <baseop/PointSearch.hpp>
#include <baseop/ResampleRegularGrid.hpp>
#include <baseop/SurfaceRefinement.hpp>
#include <baseop/TangentialVectors.hpp>
#include <baseop/TreeCellMapper.hpp>
#include <baseop/UniGridMapper.hpp>
#include <baseop/UniformCell.hpp>
#include <baseop/UniformInterpolation.hpp>
#include <baseop/WorldDerivative.hpp>
