import numpy as np
import pytest


def make_signal(frames, channels, rate=44100, seed=7):
    """Tones and noise at about half scale, as int16 (frames, channels)."""
    t = np.arange(frames) / rate
    rng = np.random.default_rng(seed)
    columns = []
    for c in range(channels):
        x = 0.3 * np.sin(2 * np.pi * (440 + 110 * c) * t) + 0.15 * np.sin(2 * np.pi * 5000 * t)
        x += 0.05 * rng.standard_normal(frames)
        columns.append(x)
    return np.round(np.stack(columns, 1) * 32767).astype(np.int16)


@pytest.fixture(scope="session")
def signal():
    return make_signal


def pytest_configure(config):
    # Dask's event loop on Debian's tornado: not ours to fix.
    config.addinivalue_line("filterwarnings",
                            "ignore:make_current is deprecated:DeprecationWarning")
