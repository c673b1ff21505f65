// STAR heads, the label index, and positioning on data rows.
#include "starfile/starfile.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "txt_file/arrays_strings.h"
#include "txt_file/txt_file.h"

const char STAR_HEAD_KEYWORDS[STAR_HEAD_KEYWORD_COUNT + 1][STAR_LABEL_LEN] = {
    "_rlnComment", "_rlnAreaId", "_rlnAreaName", "_rlnBfactor",
    "_rlnCtfScalefactor", "_rlnVoltage", "_rlnPhaseShift", "_rlnDefocusU",
    "_rlnDefocusV", "_rlnDefocusAngle", "_rlnSphericalAberration", "_rlnChromaticAberration",
    "_rlnDetectorPixelSize", "_rlnEnergyLoss", "_rlnCtfFigureOfMerit", "_rlnCtfImage",
    "_rlnLensStability", "_rlnMagnification", "_rlnConvergenceCone", "_rlnLongitudinalDisplacement",
    "_rlnTransversalDisplacement", "_rlnAmplitudeContrast", "_rlnCtfValue", "_rlnCtfMaxResolution",
    "_rlnImageName", "_rlnReconstructImageName", "_rlnImageId", "_rlnEnabled",
    "_rlnDataType", "_rlnDataDimensionality", "_rlnBeamTiltX", "_rlnBeamTiltY",
    "_rlnBeamTiltGroupName", "_rlnCoordinateX", "_rlnCoordinateY", "_rlnCoordinateZ",
    "_rlnMovieFrameNumber", "_rlnNormCorrection", "_rlnMagnificationCorrection", "_rlnSamplingRate",
    "_rlnSamplingRateX", "_rlnSamplingRateY", "_rlnSamplingRateZ", "_rlnImageSize",
    "_rlnImageSizeX", "_rlnImageSizeY", "_rlnImageSizeZ", "_rlnMinimumValue",
    "_rlnMaximumValue", "_rlnAverageValue", "_rlnStandardDeviationValue", "_rlnSkewnessValue",
    "_rlnKurtosisExcessValue", "_rlnImageWeight", "_rlnMatrix_1_1", "_rlnMatrix_1_2",
    "_rlnMatrix_1_3", "_rlnMatrix_2_1", "_rlnMatrix_2_2", "_rlnMatrix_2_3",
    "_rlnMatrix_3_1", "_rlnMatrix_3_2", "_rlnMatrix_3_3", "_rlnMicrographId",
    "_rlnMicrographName", "_rlnMicrographTiltAngle", "_rlnMicrographTiltAxisDirection", "_rlnMicrographTiltAxisOutOfPlane",
    "_rlnAccuracyRotations", "_rlnAccuracyTranslations", "_rlnAveragePmax", "_rlnCurrentResolution",
    "_rlnCurrentImageSize", "_rlnSsnrMap", "_rlnReferenceDimensionality", "_rlnDataDimensionality",
    "_rlnDiff2RandomHalves", "_rlnGoldStandardFsc", "_rlnGroupName", "_rlnGroupNumber",
    "_rlnGroupNrParticles", "_rlnGroupScaleCorrection", "_rlnFourierSpaceInterpolator", "_rlnLogLikelihood",
    "_rlnMinRadiusNnInterpolation", "_rlnNormCorrectionAverage", "_rlnNrClasses", "_rlnNrGroups",
    "_rlnSpectralOrientabilityContribution", "_rlnOriginalImageSize", "_rlnPaddingFactor", "_rlnClassDistribution",
    "_rlnClassPriorOffsetX", "_rlnClassPriorOffsetY", "_rlnOrientationDistribution", "_rlnPixelSize",
    "_rlnReferenceSpectralPower", "_rlnOrientationalPriorMode", "_rlnReferenceImage", "_rlnSigmaOffsets",
    "_rlnSigma2Noise", "_rlnReferenceSigma2", "_rlnSigmaPriorRotAngle", "_rlnSigmaPriorTiltAngle",
    "_rlnSigmaPriorPsiAngle", "_rlnSignalToNoiseRatio", "_rlnTau2FudgeFactor", "_rlnReferenceTau2",
    "_rlnOverallAccuracyRotations", "_rlnOverallAccuracyTranslations", "_rlnAdaptiveOversampleFraction", "_rlnAdaptiveOversampleOrder",
    "_rlnAutoLocalSearchesHealpixOrder", "_rlnAvailableMemory", "_rlnBestResolutionThusFar", "_rlnCoarseImageSize",
    "_rlnChangesOptimalOffsets", "_rlnChangesOptimalOrientations", "_rlnChangesOptimalClasses", "_rlnCtfDataArePhaseFlipped",
    "_rlnExperimentalDataStarFile", "_rlnDoCorrectCtf", "_rlnDoCorrectMagnification", "_rlnDoCorrectNorm",
    "_rlnDoCorrectScale", "_rlnDoRealignMovies", "_rlnDoMapEstimation", "_rlnDoAutoRefine",
    "_rlnDoOnlyFlipCtfPhases", "_rlnDoSolventFlattening", "_rlnDoSkipAlign", "_rlnDoSkipRotate",
    "_rlnDoSplitRandomHalves", "_rlnDoZeroMask", "_rlnFixSigmaNoiseEstimates", "_rlnFixSigmaOffsetEstimates",
    "_rlnFixTauEstimates", "_rlnHasConverged", "_rlnHasHighFscAtResolLimit", "_rlnHasLargeSizeIncreaseIterationsAgo",
    "_rlnHighresLimitExpectation", "_rlnDoIgnoreCtfUntilFirstPeak", "_rlnIncrementImageSize", "_rlnCurrentIteration",
    "_rlnJoinHalvesUntilThisResolution", "_rlnMagnificationSearchRange", "_rlnMagnificationSearchStep", "_rlnMaximumCoarseImageSize",
    "_rlnMaxNumberOfPooledParticles", "_rlnModelStarFile", "_rlnModelStarFile2", "_rlnNumberOfIterations",
    "_rlnNumberOfIterWithoutResolutionGain", "_rlnNumberOfIterWithoutChangingAssignments", "_rlnOutputRootName", "_rlnParticleDiameter",
    "_rlnRadiusMaskMap", "_rlnRadiusMaskExpImages", "_rlnRandomSeed", "_rlnRefsAreCtfCorrected",
    "_rlnSmallestChangesClasses", "_rlnSmallestChangesOffsets", "_rlnSmallestChangesOrientations", "_rlnOrientSamplingStarFile",
    "_rlnSolventMaskName", "_rlnSolventMask2Name", "_rlnTauSpectrumName", "_rlnUseTooCoarseSampling",
    "_rlnWidthMaskEdge", "_rlnIsFlip", "_rlnOrientationsID", "_rlnOriginX",
    "_rlnOriginXPrior", "_rlnOriginY", "_rlnOriginYPrior", "_rlnOriginZ",
    "_rlnOriginZPrior", "_rlnAngleRot", "_rlnAngleRotPrior", "_rlnAngleTilt",
    "_rlnAngleTiltPrior", "_rlnAnglePsi", "_rlnAnglePsiPrior", "_rlnAutopickFigureOfMerit",
    "_rlnClassNumber", "_rlnLogLikeliContribution", "_rlnParticleId", "_rlnParticleFigureOfMerit",
    "_rlnKullbackLeibnerDivergence", "_rlnRandomSubset", "_rlnParticleName", "_rlnOriginalParticleName",
    "_rlnNrOfSignificantSamples", "_rlnNrOfFrames", "_rlnMaxValueProbDistribution", "_rlnFinalResolution",
    "_rlnBfactorUsedForSharpening", "_rlnFourierShellCorrelationCorrected", "_rlnFourierShellCorrelationMaskedMaps", "_rlnFourierShellCorrelationUnmaskedMaps",
    "_rlnCorrectedFourierShellCorrelationPhaseRandomizedMaskedMaps", "_rlnFittedInterceptGuinierPlot", "_rlnFittedSlopeGuinierPlot", "_rlnCorrelationFitGuinierPlot",
    "_rlnLogAmplitudesOriginal", "_rlnLogAmplitudesMTFCorrected", "_rlnLogAmplitudesWeighted", "_rlnLogAmplitudesSharpened",
    "_rlnLogAmplitudesIntercept", "_rlnResolutionSquared", "_rlnMtfValue", "_rlnIs3DSampling",
    "_rlnIs3DTranslationalSampling", "_rlnHealpixOrder", "_rlnTiltAngleLimit", "_rlnOffsetRange",
    "_rlnOffsetStep", "_rlnSamplingPerturbInstance", "_rlnSamplingPerturbFactor", "_rlnPsiStep",
    "_rlnSymmetryGroup", "_rlnSelected", "_rlnParticleSelectZScore", "_rlnSortedIndex",
    "_rlnResolution", "_rlnAngstromResolution", "_rlnResolutionInversePixel", "_rlnSpectralIndex",
    ""};

namespace {

// The separators of the head grammar.
constexpr const char* kHeadSeparators = " \t\n\r";

// The labels of ParticleInfoIndex and their fields.
struct IndexField {
  const char* label;
  int ParticleInfoIndex::*field;
};
constexpr IndexField kIndexFields[] = {
    {"_rlnBfactor", &ParticleInfoIndex::bfactor},
    {"_rlnMicrographName", &ParticleInfoIndex::micrograph_name},
    {"_rlnImageName", &ParticleInfoIndex::image_name},
    {"_rlnCoordinateX", &ParticleInfoIndex::coordinate_x},
    {"_rlnCoordinateY", &ParticleInfoIndex::coordinate_y},
    {"_rlnVoltage", &ParticleInfoIndex::voltage},
    {"_rlnPhaseShift", &ParticleInfoIndex::phase_shift},
    {"_rlnDefocusU", &ParticleInfoIndex::defocus_u},
    {"_rlnDefocusV", &ParticleInfoIndex::defocus_v},
    {"_rlnDefocusAngle", &ParticleInfoIndex::defocus_angle},
    {"_rlnSphericalAberration", &ParticleInfoIndex::spherical_aberration},
    {"_rlnDetectorPixelSize", &ParticleInfoIndex::detector_pixel_size},
    {"_rlnMagnification", &ParticleInfoIndex::magnification},
    {"_rlnAmplitudeContrast", &ParticleInfoIndex::amplitude_contrast},
    {"_rlnCtfFigureOfMerit", &ParticleInfoIndex::ctf_figure_of_merit},
    {"_rlnCtfMaxResolution", &ParticleInfoIndex::ctf_max_resolution},
    {"_rlnClassNumber", &ParticleInfoIndex::class_number},
    {"_rlnGroupNumber", &ParticleInfoIndex::group_number},
    {"_rlnRandomSubset", &ParticleInfoIndex::random_subset},
    {"_rlnNormCorrection", &ParticleInfoIndex::norm_correction},
    {"_rlnOriginX", &ParticleInfoIndex::origin_x},
    {"_rlnOriginY", &ParticleInfoIndex::origin_y},
    {"_rlnAngleRot", &ParticleInfoIndex::angle_rot},
    {"_rlnAngleTilt", &ParticleInfoIndex::angle_tilt},
    {"_rlnAnglePsi", &ParticleInfoIndex::angle_psi},
    {"_rlnLogLikeliContribution", &ParticleInfoIndex::log_likeli_contribution},
    {"_rlnNrOfSignificantSamples", &ParticleInfoIndex::nr_of_significant_samples},
    {"_rlnMaxValueProbDistribution", &ParticleInfoIndex::max_value_prob_distribution},
    {"_rlnAutopickFigureOfMerit", &ParticleInfoIndex::autopick_figure_of_merit},
};
static_assert(sizeof(kIndexFields) / sizeof(kIndexFields[0]) * sizeof(int) == sizeof(ParticleInfoIndex),
              "every field of ParticleInfoIndex has its label");

int ParticleInfoIndex::*index_field(const char* label) {
  if (label == nullptr) return nullptr;
  for (const IndexField& f : kIndexFields)
    if (std::strcmp(label, f.label) == 0) return f.field;
  return nullptr;
}

enum class LineKind { kBlank, kLabel, kSkipped, kOther };

bool begins_with(const char* s, const char* prefix) { return std::strncmp(s, prefix, std::strlen(prefix)) == 0; }

// Lines that the head grammar passes over without ending the head, other than label lines.
bool is_block_or_comment(const char* first_token) {
  return begins_with(first_token, "data_") || begins_with(first_token, "loop_") || first_token[0] == '#';
}

// Classifies a line by the head grammar; cuts it in place. For a label line, tokens[0] is the
// label and tokens[1] its "#" number.
LineKind classify(char* line, char** tokens) {
  const int count = strnsplit_inplace(tokens, line, kHeadSeparators, 2);
  if (count == 0) return LineKind::kBlank;
  if (count == 2 && tokens[1][0] == '#' && is_star_head_keyword(tokens[0])) return LineKind::kLabel;
  if (is_block_or_comment(tokens[0])) return LineKind::kSkipped;
  return LineKind::kOther;
}

// The decimal number behind "#", clamped to the range of int; 0 when none is written.
int column_number_of(const char* hash_token) {
  const long value = std::strtol(hash_token + 1, nullptr, 10);
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

// Walks from the start of the file over the lines of the head grammar's kinds 1 to 3, to the
// start of data row `row` or to the end of the file. Returns the number of data rows passed.
long walk_to_row(FILE* fp, long row) {
  std::rewind(fp);
  char line[PICKORA_LINE_LEN];
  char* tokens[2];
  long rows = 0;
  for (;;) {
    const long start = std::ftell(fp);
    if (!read_whole_line(line, fp, nullptr)) break;
    if (classify(line, tokens) != LineKind::kOther) continue;
    if (rows >= row && row >= 0) {
      std::fseek(fp, start, SEEK_SET);
      return rows;
    }
    ++rows;
  }
  std::fseek(fp, 0, SEEK_END);
  return rows;
}

}  // namespace

StarHead* star_head_new() { return static_cast<StarHead*>(std::calloc(1, sizeof(StarHead))); }

int star_head_empty(StarHead* head) {
  std::memset(head, 0, sizeof(StarHead));
  return 0;
}

ParticleInfoIndex* particle_info_index_new() {
  return static_cast<ParticleInfoIndex*>(std::calloc(1, sizeof(ParticleInfoIndex)));
}

int particle_info_index_init(ParticleInfoIndex* index) {
  std::memset(index, 0, sizeof(ParticleInfoIndex));
  return 0;
}

int is_star_head_keyword(const char* word) {
  if (word == nullptr || word[0] == '\0') return 0;
  for (int i = 0; STAR_HEAD_KEYWORDS[i][0] != '\0'; ++i)
    if (std::strcmp(word, STAR_HEAD_KEYWORDS[i]) == 0) return 1;
  return 0;
}

int star_read_head(FILE* fp, StarHead* head) {
  star_head_empty(head);
  std::rewind(fp);
  char line[PICKORA_LINE_LEN];
  char* tokens[2];
  for (int i = 0; i < STAR_HEAD_MAX_LINES && read_whole_line(line, fp, nullptr); ++i) {
    const LineKind kind = classify(line, tokens);
    if (kind == LineKind::kOther) break;
    if (kind != LineKind::kLabel) continue;
    // A label of the table is shorter than STAR_LABEL_LEN, and at most one label per line.
    const int n = head->column_count++;
    head->column_number[n] = column_number_of(tokens[1]);
    std::strncpy(head->column_label[n], tokens[0], STAR_LABEL_LEN - 1);
  }
  return 0;
}

int starf_read_head(const char* name, StarHead* head) {
  FILE* fp = PK_FOPEN_READ_OR_EXIT(name);
  star_read_head(fp, head);
  std::fclose(fp);
  return 0;
}

int set_info_index_from_star_head(const StarHead* head, ParticleInfoIndex* index) {
  particle_info_index_init(index);
  const int count = head->column_count < STAR_HEAD_MAX_LINES ? head->column_count : STAR_HEAD_MAX_LINES;
  for (int i = 0; i < count; ++i) set_info_index_from_keyword_number(head->column_label[i], head->column_number[i], index);
  return 0;
}

int set_info_index_from_keyword_number(const char* label, int number, ParticleInfoIndex* index) {
  if (int ParticleInfoIndex::*field = index_field(label)) index->*field = number;
  return 0;
}

int get_info_index_from_keyword(const char* label, const ParticleInfoIndex* index) {
  int ParticleInfoIndex::*field = index_field(label);
  return field != nullptr ? index->*field : 0;
}

int set_info_index_from_starf(const char* name, ParticleInfoIndex* index) {
  StarHead* head = star_head_new();
  starf_read_head_info_index(name, head, index);
  std::free(head);
  return 0;
}

int starf_read_head_info_index(const char* name, StarHead* head, ParticleInfoIndex* index) {
  starf_read_head(name, head);
  set_info_index_from_star_head(head, index);
  return 0;
}

int star_set_pointer(FILE* fp, long row) {
  walk_to_row(fp, row < 0 ? 0 : row);
  return 0;
}

int star_set_next_line(FILE* fp) {
  char line[PICKORA_LINE_LEN];
  read_one_line(line, fp);
  return 0;
}

int get_starf_suffixn(const char* name) {
  if (name == nullptr) return 0;
  const size_t n = std::strlen(name);
  return n >= 5 && std::strcmp(name + n - 5, ".star") == 0 ? 5 : 0;
}

long get_lineN_from_star(FILE* fp) { return walk_to_row(fp, -1); }

long get_lineN_from_starf(const char* name) {
  FILE* fp = PK_FOPEN_READ_OR_EXIT(name);
  const long rows = get_lineN_from_star(fp);
  std::fclose(fp);
  return rows;
}

int is_words_starhead(char** words, int count) {
  if (count == 0) return 1;
  if (words == nullptr || count < 0 || words[0] == nullptr) return 0;
  if (count < 3 && is_star_head_keyword(words[0])) return 1;
  return is_block_or_comment(words[0]) ? 1 : 0;
}

int star_read_row(FILE* fp, char* line, char** tokens, int column_count) {
  bool cut;
  if (!read_whole_line(line, fp, &cut)) return -1;
  if (cut || column_count < 1 || is_str_null(line)) return 0;
  char probe[PICKORA_LINE_LEN];
  char* probe_tokens[2];
  std::memcpy(probe, line, PICKORA_LINE_LEN);
  if (classify(probe, probe_tokens) != LineKind::kOther) return 0;
  const int limit = column_count < PICKORA_LINE_LEN / 2 ? column_count : PICKORA_LINE_LEN / 2;
  return strnsplit_inplace_byspace(tokens, line, limit) == column_count ? 1 : 0;
}

const char* star_row_field(char* const* tokens, int count, int column_number) {
  if (tokens == nullptr || column_number < 1 || column_number > count) return nullptr;
  return tokens[column_number - 1];
}

namespace {

// Walks the rows from row 0 and calls take(name) for each row's micrograph name, as long as
// take returns true.
template <class Take>
void for_each_micrograph(FILE* fp, const StarHead& head, const ParticleInfoIndex& index, Take take) {
  char line[PICKORA_LINE_LEN];
  char* tokens[PICKORA_LINE_LEN / 2];
  star_set_pointer(fp, 0);
  for (int got; (got = star_read_row(fp, line, tokens, head.column_count)) >= 0;) {
    const char* name = got == 1 ? star_row_field(tokens, head.column_count, index.micrograph_name) : nullptr;
    if (name != nullptr && !take(name)) return;
  }
}

}  // namespace

char** get_all_micrographs_from_ctfstar(const char* name) {
  FILE* fp = PK_FOPEN_READ_OR_EXIT(name);
  StarHead* head = star_head_new();
  ParticleInfoIndex index;
  star_read_head(fp, head);
  set_info_index_from_star_head(head, &index);
  // Counted first, so that lines that give no name (or a file that is no table) cost nothing.
  long rows = 0;
  for_each_micrograph(fp, *head, index, [&](const char*) { return ++rows < INT_MAX; });
  char** names = strmalloc2d(static_cast<int>(rows + 1), PICKORA_NAME_LEN);
  if (names != nullptr) {
    empty2d_array(names, static_cast<int>(rows + 1), PICKORA_NAME_LEN, 1);
    long stored = 0;
    for_each_micrograph(fp, *head, index, [&](const char* micrograph) {
      if (stored >= rows) return false;  // the file grew between the two walks
      strlcpy(names[stored++], micrograph);
      return true;
    });
  }
  std::free(head);
  std::fclose(fp);
  return names;
}

int particle_star_write_head(FILE* fp) {
  static const char* const kLabels[] = {
      "_rlnMicrographName",     "_rlnCoordinateX",       "_rlnCoordinateY",     "_rlnVoltage",
      "_rlnDefocusU",           "_rlnDefocusV",          "_rlnDefocusAngle",    "_rlnSphericalAberration",
      "_rlnDetectorPixelSize",  "_rlnCtfFigureOfMerit",  "_rlnMagnification",   "_rlnAmplitudeContrast",
      "_rlnAutopickFigureOfMerit", "_rlnPhaseShift"};
  std::fprintf(fp, "\ndata_\n");
  std::fprintf(fp, "\nloop_\n");
  int number = 1;
  for (const char* label : kLabels) std::fprintf(fp, "%s #%d\n", label, number++);
  return 0;
}

int particle_star_write_oneline(FILE* fp, const char* micrograph_name, float coordinate_x, float coordinate_y,
                                float voltage, float defocus_u, float defocus_v, float defocus_angle,
                                float spherical_aberration, float detector_pixel_size, float ctf_figure_of_merit,
                                float magnification, float amplitude_contrast, float autopick_figure_of_merit,
                                float phase_shift) {
  const float values[] = {coordinate_x,         coordinate_y,        voltage,       defocus_u,
                          defocus_v,            defocus_angle,       spherical_aberration,
                          detector_pixel_size,  ctf_figure_of_merit, magnification, amplitude_contrast,
                          autopick_figure_of_merit, phase_shift};
  std::fputs(micrograph_name != nullptr ? micrograph_name : "", fp);
  for (float v : values) std::fprintf(fp, " %12.6f", v);
  std::fputc('\n', fp);
  return 0;
}
