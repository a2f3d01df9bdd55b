"""The settings of the dsp tool's effects, in one table.

These mirror tools/effects.cpp (its constants and the defaults and ranges of
each effect's words) and tools/commands.h (the block size): a processor made
here with its defaults is the processor the tool builds for the same words.
When the tool's defaults change, this file is the one place to follow them.
"""

# Frames per block of the host loops: the analyzers', and the longest block
# a chain runs (kBlockFrames, kLongestBlock).
BLOCK_FRAMES = 4096
# The block choice of a chain with rate changes (chooseBlock): the
# resampler converts in chunks of this many frames, each from a fresh
# interpolation position (kConverterChunk); blocks shorter than this are not
# worth an exact rate change (kShortestAlignedBlock).
CONVERTER_CHUNK = 4096
SHORTEST_ALIGNED_BLOCK = 256

# Settings the tool does not expose.
FILTER_ATTENUATION_DB = 60.0  # resampler / hqups anti-alias filter
FILTER_SLOPE_DB_PER_OCTAVE = 60.0  # hqups' filter (the resampler's follows its pass band)
FILTER_ON = 1
# Where the resampler's pass band ends, as a fraction of the lower rate's
# Nyquist frequency (resample --passband FRACTION).
PASSBAND_FRACTION = 0.9
PASSBAND_LIMITS = (0.05, 0.99)
# The resampler's pass band equaliser (tools/passband_equaliser.h): its
# taps, the points per source rate of its design grid, and up to how many
# output positions per source frame its design sums the interpolation's
# response exactly (kEqualiserTaps, kEqualiserGrid, kExactPhases).
EQUALISER_TAPS = 16
EQUALISER_GRID = 256
EQUALISER_EXACT_PHASES = 256
# Grain and spacing of the pitch shifter and the time stretcher, as measured
# best by bench_granular_choice (pitch / stretch --grain, --spacing).
PITCH_GRAIN_SECONDS = 0.15
PITCH_SPACING_SECONDS = 0.1
STRETCH_GRAIN_SECONDS = 0.2
STRETCH_SPACING_SECONDS = 0.1
GRAIN_LIMITS = (0.005, 1.0)  # the tool's --grain
SPACING_LIMITS = (0.001, 1.0)  # the tool's --spacing
OUT_LEVEL_DB = 0.0  # pitch / stretch output level
HQUPS_BAND_EDGE_HZ = 5000
HQUPS_INTERPOLATION = 1  # cubic
FADER_FLOOR_DB = -50.0  # the fader's lowest level
CHORUS_HISTORY = 65536  # samples of delay the chorus holds

# Each effect's words: (keyword, default, lowest, highest); a default of
# REQUIRED means the tool has none. Ranges are inclusive.
REQUIRED = object()
EFFECTS = {
    "lowpass": [("order", REQUIRED, 1, 32), ("cutoff", REQUIRED, 1e-3, 1e6)],
    "highpass": [("order", REQUIRED, 1, 32), ("cutoff", REQUIRED, 1e-3, 1e6)],
    # then [linear|cubic] [mono|stereo] [--passband FRACTION]
    "resample": [("rate", REQUIRED, 1000, 768000)],
    "hqups": [("harmonics", 0.3, 0.0, 1.0), ("mix", 50.0, 0.0, 400.0)],  # then [active]
    "chorus": [
        ("voices", 3, 0, 16),
        ("delay_ms", 20.0, 0.0, 1000.0),
        ("depth_ms", 2.0, 0.0, 1000.0),
        ("period_s", 1.5, 0.0, 3600.0),
        ("mix", 30.0, 0.0, 400.0),
        ("dry", 100.0, 0.0, 400.0),
    ],
    "pitch": [("cents", REQUIRED, -1200.0, 1200.0)],
    "stretch": [("scale", REQUIRED, -2000.0, 3000.0)],
    "tempo": [("factor", REQUIRED, 0.25, 8.0)],
    "gain": [("db", REQUIRED, -50.0, 50.0)],
    "fade": [("in_s", REQUIRED, 0.0, 3600.0), ("out_s", None, 0.0, 3600.0)],  # out: in_s
}

# The usage line of each effect, as the tool prints it.
USAGE = {
    "lowpass": "lowpass ORDER HZ",
    "highpass": "highpass ORDER HZ",
    "resample": "resample RATE [linear|cubic] [mono|stereo] [--passband FRACTION]",
    "hqups": "hqups [HARMONICS] [MIX%] [active]",
    "chorus": "chorus [VOICES DELAY_MS DEPTH_MS PERIOD_S MIX% DRY%]",
    "pitch": "pitch CENTS [--grain SECONDS] [--spacing SECONDS]",
    "stretch": "stretch SCALE [--grain SECONDS] [--spacing SECONDS]",
    "tempo": "tempo FACTOR [--grain SECONDS] [--spacing SECONDS]",
    "gain": "gain DB",
    "fade": "fade IN_S [OUT_S]",
}

# The words of the tool's messages for each keyword.
WORDS = {
    "order": "ORDER",
    "cutoff": "HZ",
    "rate": "RATE",
    "harmonics": "HARMONICS",
    "mix": "MIX%",
    "voices": "VOICES",
    "delay_ms": "DELAY_MS",
    "depth_ms": "DEPTH_MS",
    "period_s": "PERIOD_S",
    "dry": "DRY%",
    "cents": "CENTS",
    "scale": "SCALE",
    "factor": "FACTOR",
    "db": "DB",
    "in_s": "IN_S",
    "out_s": "OUT_S",
}

# The analysis commands' defaults (tools/commands.h, tools/analysis.cpp).
SPECTRUM_SIZE = 4096
SPECTRUM_RANGE_DB = 120
ENVELOPE_STEP_SECONDS = 0.1
SLICE_GATES = {"start_gate": -30.0, "end_gate": -40.0, "rise": 5.0, "min": 0.1}
SLICE_RANGES = {
    "start_gate": (-120.0, 20.0),
    "end_gate": (-120.0, 20.0),
    "rise": (0.0, 1000.0),
    "min": (0.0, 3600.0),
}


def default(effect, keyword):
    for name, value, _, _ in EFFECTS[effect]:
        if name == keyword:
            return value
    raise KeyError(keyword)


def limits(effect, keyword):
    for name, _, lo, hi in EFFECTS[effect]:
        if name == keyword:
            return lo, hi
    raise KeyError(keyword)
