// The classes of the class table, as X-macro lists.
//   PW_FOR_EACH_FIRST_LISTED: the table's entries up to the category entries, in order;
//     the six classes whose factory keeps one instance per calling thread come first.
//   PW_FOR_EACH_CATEGORY_MEMBER: the table's category entries, in order.
//   PW_FOR_EACH_CATEGORY_ONLY: the category members that are not first-listed.
//   PW_FOR_EACH_CLASS: every class once.
#pragma once

#define PW_FOR_EACH_FIRST_LISTED(X)                \
  X(RelativePathManager)                           \
  X(CopyToPathManager)                             \
  X(PythonAdapterFunctionMemoizer)                 \
  X(RasterJSONConverter)                           \
  X(RasterJSONTypeMapper)                          \
  X(MultidimensionalFunctionMemoizer)              \
  X(FunctionRasterDatasetName)                     \
  X(FunctionRasterDataset)                         \
  X(RasterInfo)                                    \
  X(RasterInfos)                                   \
  X(RasterFunctionHelper)                          \
  X(Scalar)                                        \
  X(ArgumentArray)                                 \
  X(RasterFunctionCollection)                      \
  X(MosaicFunction)                                \
  X(MosaicFunctionArguments)                       \
  X(MosaicLODInfos)                                \
  X(GeometricFunctionArguments)                    \
  X(GeometricMedianFunctionArguments)              \
  X(GradientFunctionArguments)                     \
  X(PansharpeningFunctionArguments)                \
  X(PanSharpenGramSchmidtFunctionArguments)        \
  X(NDVIFunctionArguments)                         \
  X(IdentityFunction)                              \
  X(ArithmeticFunctionArguments)                   \
  X(ColormapFunctionArguments)                     \
  X(ColormapToRGBFunctionArguments)                \
  X(RGB32Function)                                 \
  X(RGBToColormapFunction)                         \
  X(StretchFunctionArguments)                      \
  X(RemapFunctionArguments)                        \
  X(StatisticsFunctionArguments)                   \
  X(ConvolutionFunctionArguments)                  \
  X(RasterFunctionTemplate)                        \
  X(RasterFunctionTemplateArguments)               \
  X(RasterFunctionVariable)                        \
  X(ClipFunctionArguments)                         \
  X(HillshadeFunctionArguments)                    \
  X(ColorspaceConversionFunctionArguments)         \
  X(ConstantFunctionArguments)                     \
  X(RandomFunctionArguments)                       \
  X(ExtractBandFunctionArguments)                  \
  X(SpectralConversionFunctionArguments)           \
  X(SlopeFunctionArguments)                        \
  X(GrayscaleFunctionArguments)                    \
  X(TrendFunction)                                 \
  X(TrendFunctionArguments)                        \
  X(ShadedReliefFunctionArguments)                 \
  X(RasterInfoFunctionArguments)                   \
  X(MaskFunctionArguments)                         \
  X(SAIFunction)                                   \
  X(SAIFunctionArguments)                          \
  X(CurvatureFunctionArguments)                    \
  X(SimpleRasterTable)                             \
  X(MosaicRastersFunction)                         \
  X(MosaicRastersFunctionArguments)                \
  X(MergeRastersFunction)                          \
  X(MergeRastersFunctionArguments)                 \
  X(FootprintFunction)                             \
  X(FootprintFunctionArguments)                    \
  X(ExcludedAreaFunction)                          \
  X(ExcludedAreaFunctionArguments)                 \
  X(DodgingFunction)                               \
  X(DodgingFunctionArguments)                      \
  X(TableFunctionArguments)                        \
  X(RGB32ToRGBFunction)                            \
  X(BandArithmeticFunctionArguments)               \
  X(SpeckleFunctionArguments)                      \
  X(RadarCalibrationFunctionArguments)             \
  X(CachedRasterFunctionArguments)                 \
  X(ContrastBrightnessFunction)                    \
  X(ContrastBrightnessFunctionArguments)           \
  X(ReprojectFunctionArguments)                    \
  X(PanSharpenGramSchmidtFunction)                 \
  X(SelectionFunction)                             \
  X(SelectionFunctionArguments)                    \
  X(ReflectanceFunctionArguments)                  \
  X(UnitConversionFunctionArguments)               \
  X(DownsampleFunction)                            \
  X(DownsampleFunctionArguments)                   \
  X(RemoveHazeFunction)                            \
  X(RemoveHazeFunctionArguments)                   \
  X(PythonAdapterFunctionArguments)                \
  X(ThresholdFunctionArguments)                    \
  X(VectorFieldFunction)                           \
  X(VectorFieldFunctionArguments)                  \
  X(SegmentMeanShiftFunctionArguments)             \
  X(TransposeBitsFunctionArguments)                \
  X(ResampleFunctionArguments)                     \
  X(RecastFunctionArguments)                       \
  X(ArgStatisticsFunctionArguments)                \
  X(RasterizeFeatureClassFunction)                 \
  X(RasterizeFeatureClassFunctionArguments)        \
  X(StatisticsHistogramFunctionArguments)          \
  X(ClassifyFunctionArguments)                     \
  X(SegmentToIndexFunction)                        \
  X(SegmentToIndexFunctionArguments)               \
  X(BufferedRasterFunction)                        \
  X(BufferedRasterFunctionArguments)               \
  X(RasterCalculatorFunction)                      \
  X(RasterCalculatorFunctionArguments)             \
  X(SwathFunctionArguments)                        \
  X(InterpolateIrregularDataFunctionArguments)     \
  X(RegionGrowFunction)                            \
  X(RegionGrowFunctionArguments)                   \
  X(PyramidFunction)                               \
  X(PyramidFunctionArguments)                      \
  X(RasterFunctionArguments)                       \
  X(MultidimensionalRasterFunction)                \
  X(MultidimensionalRasterFunctionArguments)       \
  X(MultidimensionalFilterFunction)                \
  X(MultidimensionalFilterFunctionArguments)       \
  X(BlendFunction)                                 \
  X(BlendFunctionArguments)                        \
  X(GCS360FunctionArguments)                       \
  X(ContourFunction)                               \
  X(ContourFunctionArguments)                      \
  X(FlowDirectionFunction)                         \
  X(FlowDirectionFunctionArguments)                \
  X(S1RadiometricCalibrationFunction)              \
  X(S1RadiometricCalibrationFunctionArguments)     \
  X(RasterFunctionTable)                           \
  X(RasterFunctionTableName)                       \
  X(P2VFunctionArguments)                          \
  X(InferenceFunctionHelper)                       \
  X(DeepLearningModelManager)                      \
  X(RasterCollectionFunction)                      \
  X(RasterCollectionFunctionArguments)             \
  X(CompositeBandFunctionArguments)                \
  X(AggregationDefinition)                         \
  X(TransposeFunction)                             \
  X(TransposeFunctionArguments)                    \
  X(TrendAnalysisFunctionArguments)                \
  X(SpectralUnmixingFunctionArguments)             \
  X(SpectralAngleMapperFunctionArguments)          \
  X(RadiometricFunction)                           \
  X(CCDCFunctionArguments)                         \
  X(LandTrendrFunctionArguments)                   \
  X(TrendToRGBFunctionArguments)                   \
  X(PrincipalComponentAnalysisFunctionArguments)   \
  X(RasterCacheFunction)                           \
  X(RasterCacheFunctionArguments)                  \
  X(RGB32ToRGBFunctionArguments)                   \
  X(PredictUsingRegressionFunctionArguments)       \
  X(DetectChangeFunctionArguments)                 \
  X(RastersetFunction)                             \
  X(RastersetFunctionArguments)                    \
  X(ComputeChangeFunctionArguments)                \
  X(SimpleCollectionFunction)                      \
  X(SimpleCollectionFunctionArguments)             \
  X(RJPEGFunctionArguments)                        \
  X(InterpolateRasterByDimensionFunctionArguments) \
  X(TerrainFlattenFunctionArguments)               \
  X(ComplexDataFilterFunction)                     \
  X(ComplexDataFilterFunctionArguments)            \
  X(ComplexMultilookFunction)                      \
  X(ComplexMultilookFunctionArguments)             \
  X(DeburstFunctionArguments)                      \
  X(ComplexFunctionArguments)                      \
  X(CoregistrationFunction)                        \
  X(CoregistrationMappingFunction)                 \
  X(CoregistrationFunctionArguments)               \
  X(CoregistrationMappingFunctionArguments)        \
  X(SARMaskingFunction)                            \
  X(SARMaskingFunctionArguments)                   \
  X(OceanWindExtractionFunction)                   \
  X(OceanWindExtractionFunctionArguments)          \
  X(CoherenceFunctionArguments)                    \
  X(GSDFunctionArguments)                          \
  X(CreateColorCompositeFunction)                  \
  X(CreateColorCompositeFunctionArguments)         \
  X(MergeFunction)                                 \
  X(MergeFunctionArguments)                        \
  X(EnumRecordSet)                                 \
  X(QuadraticInterpolateFunctionArguments)         \
  X(SARIndicesFunction)                            \
  X(SARIndicesFunctionArguments)                   \
  X(RegionPixelCountFunction)                      \
  X(RegionPixelCountFunctionArguments)             \
  X(OptimalInterpolateFunctionArguments)           \
  X(RasterCorrelationFunction)                     \
  X(RasterCorrelationFunctionArguments)            \
  X(TOPSARSplitFunction)                           \
  X(TOPSARSplitFunctionArguments)                  \
  X(SubsetBandsFunction)                           \
  X(SubsetBandsFunctionArguments)                  \
  X(AnomalyDetectionFunction)                      \
  X(AnomalyDetectionFunctionArguments)             \
  X(GenerateInterferogramFunction)                 \
  X(GenerateInterferogramFunctionArguments)        \
  X(RemoveTopographicPhaseFunction)                \
  X(RemoveTopographicPhaseFunctionArguments)       \
  X(RampAndModulateFunction)                       \
  X(RampAndModulateFunctionArguments)              \
  X(SubtractFlatEarthPhaseFunction)                \
  X(SubtractFlatEarthPhaseFunctionArguments)       \
  X(LinearPixelTransformFunction)                  \
  X(LinearPixelTransformFunctionArguments)         \
  X(MosaicByBandIndicesFunction)                   \
  X(MosaicByBandIndicesFunctionArguments)          \
  X(ApplyMaskFunctionArguments)                    \
  X(LabelBadBandsFunction)                         \
  X(LabelBadBandsFunctionArguments)                \
  X(ContinuumRemovalFunctionArguments)             \
  /* end */

// D(X, name, only): `only` is 1 for a class that the table lists only here.
#define PW_CATEGORY_LIST(D, X)                  \
  D(X, CompositeBandFunction, 1)                \
  D(X, GeometricFunction, 1)                    \
  D(X, PansharpeningFunction, 1)                \
  D(X, NDVIFunction, 1)                         \
  D(X, ArithmeticFunction, 1)                   \
  D(X, ColormapToRGBFunction, 1)                \
  D(X, ColormapFunction, 1)                     \
  D(X, ComplexFunction, 1)                      \
  D(X, StretchFunction, 1)                      \
  D(X, StatisticsFunction, 1)                   \
  D(X, ConvolutionFunction, 1)                  \
  D(X, ClipFunction, 1)                         \
  D(X, HillshadeFunction, 1)                    \
  D(X, ColorspaceConversionFunction, 1)         \
  D(X, ConstantFunction, 1)                     \
  D(X, RandomFunction, 1)                       \
  D(X, ExtractBandFunction, 1)                  \
  D(X, SpectralConversionFunction, 1)           \
  D(X, SpeckleFunction, 1)                      \
  D(X, SlopeFunction, 1)                        \
  D(X, AspectFunction, 1)                       \
  D(X, GrayscaleFunction, 1)                    \
  D(X, ShadedReliefFunction, 1)                 \
  D(X, RasterInfoFunction, 1)                   \
  D(X, MaskFunction, 1)                         \
  D(X, TableFunction, 1)                        \
  D(X, BandArithmeticFunction, 1)               \
  D(X, RemapFunction, 1)                        \
  D(X, RadarCalibrationFunction, 1)             \
  D(X, CachedRasterFunction, 1)                 \
  D(X, ReflectanceFunction, 1)                  \
  D(X, UnitConversionFunction, 1)               \
  D(X, CurvatureFunction, 1)                    \
  D(X, ContrastBrightnessFunction, 0)           \
  D(X, ReprojectFunction, 1)                    \
  D(X, KauthThomasFunction, 1)                  \
  D(X, PythonAdapterFunction, 1)                \
  D(X, ThresholdFunction, 1)                    \
  D(X, SegmentMeanShiftFunction, 1)             \
  D(X, TransposeBitsFunction, 1)                \
  D(X, ResampleFunction, 1)                     \
  D(X, RecastFunction, 1)                       \
  D(X, ArgStatisticsFunction, 1)                \
  D(X, StatisticsHistogramFunction, 1)          \
  D(X, VectorFieldFunction, 0)                  \
  D(X, ClassifyFunction, 1)                     \
  D(X, SwathFunction, 1)                        \
  D(X, InterpolateIrregularDataFunction, 1)     \
  D(X, S1ThermalNoiseRemovalFunction, 1)        \
  D(X, S1RadiometricCalibrationFunction, 0)     \
  D(X, ThermalNoiseRemovalFunction, 1)          \
  D(X, P2VFunction, 1)                          \
  D(X, GCS360Function, 1)                       \
  D(X, TrendAnalysisFunction, 1)                \
  D(X, SpectralUnmixingFunction, 1)             \
  D(X, SpectralAngleMapperFunction, 1)          \
  D(X, CCDCFunction, 1)                         \
  D(X, GeometricMedianFunction, 1)              \
  D(X, GradientFunction, 1)                     \
  D(X, TrendToRGBFunction, 1)                   \
  D(X, LandTrendrFunction, 1)                   \
  D(X, PrincipalComponentAnalysisFunction, 1)   \
  D(X, PredictUsingRegressionFunction, 1)       \
  D(X, DetectChangeFunction, 1)                 \
  D(X, ComputeChangeFunction, 1)                \
  D(X, RJPEGFunction, 1)                        \
  D(X, InterpolateRasterByDimensionFunction, 1) \
  D(X, TerrainFlattenFunction, 1)               \
  D(X, ComplexDataFilterFunction, 0)            \
  D(X, DeburstFunction, 1)                      \
  D(X, OceanWindExtractionFunction, 0)          \
  D(X, CoherenceFunction, 1)                    \
  D(X, GSDFunction, 1)                          \
  D(X, CreateColorCompositeFunction, 0)         \
  D(X, QuadraticInterpolateFunction, 1)         \
  D(X, SARIndicesFunction, 0)                   \
  D(X, RegionPixelCountFunction, 0)             \
  D(X, OptimalInterpolateFunction, 1)           \
  D(X, RasterCorrelationFunction, 0)            \
  D(X, TOPSARSplitFunction, 0)                  \
  D(X, SubsetBandsFunction, 0)                  \
  D(X, AnomalyDetectionFunction, 0)             \
  D(X, GenerateInterferogramFunction, 0)        \
  D(X, RemoveTopographicPhaseFunction, 0)       \
  D(X, RampAndModulateFunction, 0)              \
  D(X, MosaicByBandIndicesFunction, 0)          \
  D(X, ApplyMaskFunction, 1)                    \
  D(X, LabelBadBandsFunction, 0)                \
  D(X, ContinuumRemovalFunction, 1)             \
  /* end */

#define PW_WHEN_0(...)
#define PW_WHEN_1(...) __VA_ARGS__
#define PW_CATEGORY_ALL_(X, name, only) X(name)
#define PW_CATEGORY_ONLY_(X, name, only) PW_WHEN_##only(X(name))

#define PW_FOR_EACH_CATEGORY_MEMBER(X) PW_CATEGORY_LIST(PW_CATEGORY_ALL_, X)
#define PW_FOR_EACH_CATEGORY_ONLY(X) PW_CATEGORY_LIST(PW_CATEGORY_ONLY_, X)
#define PW_FOR_EACH_CLASS(X) PW_FOR_EACH_FIRST_LISTED(X) PW_FOR_EACH_CATEGORY_ONLY(X)
