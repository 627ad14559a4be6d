#include <cstdio>
#include <vtk/VtkObjects.hpp>
#include <vtkImageData.h>
#include <vtkNew.h>
#include <vtkPointData.h>
#include <vtkPolyData.h>

int main() {
    vtkNew<vtkImageData> image;
    image->SetDimensions(5, 5, 5);
    image->AllocateScalars(VTK_DOUBLE, 1);
    image->GetPointData()->GetScalars()->SetName("x");
    for (int n = 0; n < 125; ++n) image->GetPointData()->GetScalars()->SetTuple1(n, n % 5);
    const bool works = Vantle::toVtk(Vantle::fromVtk(image).contour("x", 1.5))->GetNumberOfPolys() == 32;
    std::puts(works ? "linked" : "wrong");
    return works ? 0 : 1;
}
