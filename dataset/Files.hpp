#pragma once
/// Everything that reads and writes files.

#include <dataset/Progress.hpp>
#include <dataset/io/AtomicFile.hpp>
#include <dataset/io/FileArray.hpp>
#include <dataset/io/FileError.hpp>
#include <dataset/io/Leftover.hpp>
#include <dataset/io/Plot3D.hpp>
#include <dataset/io/Plot3DGrid.hpp>
#include <dataset/io/Vtk.hpp>
