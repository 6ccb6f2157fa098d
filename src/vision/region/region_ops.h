#pragma once
// Region operators of the vision library: creation and object lists, shape
// features and selection, segmentation, morphology. Names, parameters and
// semantics follow the reference library's operators; every operator applies
// to each object of an input list and raises HException on bad input.
#include "vision/core/object.h"
#include "vision/core/system.h"
#include "vision/core/tuple.h"

namespace vision {

// ---- Creation and object lists --------------------------------------------
// One rectangle per element of the (equally long) corner tuples.
void gen_rectangle1(HObject* rectangle, const HTuple& row1, const HTuple& column1,
                    const HTuple& row2, const HTuple& column2);
void gen_empty_region(HObject* empty_region);
void gen_empty_obj(HObject* empty_object);
void concat_obj(const HObject& objects1, const HObject& objects2, HObject* objects_concat);
// Index is 1-based and may hold several indices.
void select_obj(const HObject& objects, HObject* object_selected, const HTuple& index);
void count_obj(const HObject& objects, HTuple* number);
// Num objects from the 1-based Index on; Num -1 copies to the end.
void copy_obj(const HObject& objects, HObject* objects_selected, const HTuple& index,
              const HTuple& num);
void get_domain(const HObject& image, HObject* domain);
// The new domain is the old one intersected with the region.
void reduce_domain(const HObject& image, const HObject& region, HObject* image_reduced);
void select_region_point(const HObject& regions, HObject* dest_regions, const HTuple& row,
                         const HTuple& column);
void get_region_points(const HObject& region, HTuple* rows, HTuple* columns);

// ---- Features and selection -------------------------------------------------
// Area (integer) and centre of gravity (reals); an empty region gives 0, 0, 0.
void area_center(const HObject& regions, HTuple* area, HTuple* row, HTuple* column);
void smallest_rectangle1(const HObject& regions, HTuple* row1, HTuple* column1, HTuple* row2,
                         HTuple* column2);
// Minimum-area rectangle around the pixel centres: Phi in (-pi/2, pi/2] of the
// major axis, counter-clockwise with rows pointing down; half lengths with
// Length1 >= Length2 (a single pixel gives 0, 0).
void smallest_rectangle2(const HObject& regions, HTuple* row, HTuple* column, HTuple* phi,
                         HTuple* length1, HTuple* length2);
// For each region, the values of all features in order (region-major).
void region_features(const HObject& regions, const HTuple& features, HTuple* value);
void select_shape(const HObject& regions, HObject* selected_regions, const HTuple& features,
                  const HTuple& operation, const HTuple& min, const HTuple& max);
void sort_region(const HObject& regions, HObject* sorted_regions, const HTuple& sort_mode,
                 const HTuple& order, const HTuple& row_or_col);

// ---- Segmentation -------------------------------------------------------------
// One region per image and per [min, max] interval; the pixels of the domain
// whose gray values lie inside (in every channel).
void threshold(const HObject& image, HObject* region, const HTuple& min_gray,
               const HTuple& max_gray);
// The dark part of a byte image below an automatically found histogram minimum.
void bin_threshold(const HObject& image, HObject* region);
// Components in the "neighborhood" of the system (8 by default), ordered by
// their first run.
void connection(const HObject& region, HObject* connected_regions);
void union1(const HObject& region, HObject* region_union);
void union2(const HObject& region1, const HObject& region2, HObject* region_union);
// Each region of Region1 intersected with the union of all of Region2.
void intersection(const HObject& region1, const HObject& region2, HObject* region_intersection);
void difference(const HObject& region, const HObject& sub, HObject* region_difference);
// Clipped to the system "width" x "height" when "clip_region" is "true".
void complement(const HObject& region, HObject* region_complement);
// "inner", "inner_filled" or "outer".
void boundary(const HObject& region, HObject* region_border, const HTuple& boundary_type);
void fill_up(const HObject& region, HObject* region_fill_up);
// Fills the holes whose feature ("area", "compactness", "convexity",
// "anisometry", "phi", "ra", "rb", "inner_circle", "outer_circle") lies in
// [min, max].
void fill_up_shape(const HObject& region, HObject* region_fill_up, const HTuple& feature,
                   const HTuple& min, const HTuple& max);
void skeleton(const HObject& region, HObject* skeleton);
// int4 image of width x height; metric "city-block", "chessboard",
// "octagonal" or "euclidean"; foreground "true" measures inside the region.
void distance_transform(const HObject& region, HObject* distance_image, const HTuple& metric,
                        const HTuple& foreground, const HTuple& width, const HTuple& height);
// Cuts into parts of about `distance` columns at columns of least vertical
// extent within +/- percent of the distance around equally spaced positions.
void partition_dynamic(const HObject& region, HObject* partitioned, const HTuple& distance,
                       const HTuple& percent);
// Mean and standard deviation of the gray values of the image's first channel
// in each region (within the image's domain); an empty region gives 0, 0.
void intensity(const HObject& regions, const HObject& image, HTuple* mean, HTuple* deviation);

// ---- Morphology (results are unbounded) ------------------------------------------
// A width x height rectangle whose reference point lies at ((h-1)/2, (w-1)/2),
// integer division, so even sizes reach one pixel further right and down.
void dilation_rectangle1(const HObject& region, HObject* region_dilation, const HTuple& width,
                         const HTuple& height);
void erosion_rectangle1(const HObject& region, HObject* region_erosion, const HTuple& width,
                        const HTuple& height);
void opening_rectangle1(const HObject& region, HObject* region_opening, const HTuple& width,
                        const HTuple& height);
void closing_rectangle1(const HObject& region, HObject* region_closing, const HTuple& width,
                        const HTuple& height);
// A disc of the pixels whose centres lie within `radius` of the reference
// point (1.5 gives 3x3, 2.5 gives 21 pixels, 3.5 gives 37 pixels). An integer
// radius gives an even diameter centred half a pixel right of and below the
// reference point (1 gives 2x2), so use x.5 radii to avoid a translation.
void dilation_circle(const HObject& region, HObject* region_dilation, const HTuple& radius);
void erosion_circle(const HObject& region, HObject* region_erosion, const HTuple& radius);
void opening_circle(const HObject& region, HObject* region_opening, const HTuple& radius);
void closing_circle(const HObject& region, HObject* region_closing, const HTuple& radius);

}  // namespace vision
