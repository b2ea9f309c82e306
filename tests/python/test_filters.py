"""The mel filter bank: what defines it, and librosa's where that is installed."""

import kevra
import numpy as np
import pytest

CASES = [(16000, 400, 80, 0.0, None), (44100, 2048, 128, 20.0, 16000.0), (22050, 1023, 40, 0.0, None),
         (8000, 512, 23, 100.0, 3800.0)]
SCALES = ("slaney", "htk")


def centres(bank, sample_rate, n_fft):
    return bank.argmax(axis=1) * sample_rate / n_fft


@pytest.mark.parametrize("scale", SCALES)
def test_filters_are_triangles_that_hand_over_to_each_other(scale):
    n_fft = 1 << 16  # bins far closer than the filters
    bank = kevra.mel_filter_bank(16000, n_fft, 40, 200.0, 7000.0, scale, norm=None)
    assert bank.shape == (40, n_fft // 2 + 1) and bank.dtype == np.float64 and bank.flags.c_contiguous
    np.testing.assert_allclose(bank.max(axis=1), 1, atol=0.01)
    middle = centres(bank, 16000, n_fft)
    hz = np.arange(n_fft // 2 + 1) * 16000 / n_fft
    between = (hz > middle[0]) & (hz < middle[-1])
    np.testing.assert_allclose(bank[:, between].sum(axis=0), 1, atol=1e-12)  # one falls as the next one rises
    assert bank[:, (hz <= 200) | (hz >= 7000)].max() < 1e-12

    equal_area = kevra.mel_filter_bank(16000, n_fft, 40, 200.0, 7000.0, scale)
    np.testing.assert_allclose(equal_area.sum(axis=1) * 16000 / n_fft, 1, rtol=1e-4)


def test_the_scales_known_points():
    # Equal distances of the one: 1000 Hz lies at 999.99 mel; of the other: steps of 1000/15 Hz up to 1 kHz, then
    # 27 steps to 6400 Hz.
    n_fft = 1 << 18
    htk = kevra.mel_filter_bank(16000, n_fft, 1, 0.0, 700 * (10 ** (2 * 999.9855 / 2595) - 1), "htk")
    np.testing.assert_allclose(centres(htk, 16000, n_fft), [1000], atol=0.1)
    slaney = centres(kevra.mel_filter_bank(16000, n_fft, 41, 0.0, 6400.0, "slaney"), 16000, n_fft)
    np.testing.assert_allclose(slaney[:15], np.arange(1, 16) * 1000 / 15, atol=0.1)
    np.testing.assert_allclose(slaney[15:], 1000 * 6.4 ** (np.arange(1, 27) / 27), atol=0.1)


@pytest.mark.parametrize("norm", ["slaney", None])
@pytest.mark.parametrize("scale", SCALES)
def test_librosa_has_the_same_bank(scale, norm):
    filters = pytest.importorskip("librosa").filters
    for sample_rate, n_fft, n_mels, f_min, f_max in CASES:
        want = filters.mel(sr=sample_rate, n_fft=n_fft, n_mels=n_mels, fmin=f_min, fmax=f_max, htk=scale == "htk",
                           norm=norm, dtype=np.float64)
        got = kevra.mel_filter_bank(sample_rate, n_fft, n_mels, f_min, f_max, scale, norm)
        np.testing.assert_allclose(got, want, rtol=0, atol=1e-12 * want.max())


def test_refusals_name_the_value():
    for arguments, words in [((0, 400, 80), "sample_rate is 0"), ((16000, 1, 80), "n_fft is 1"),
                             ((16000, 400, 0), "n_mels is 0"), ((16000, 400, 80, -1.0), "f_min is -1.0"),
                             ((16000, 400, 80, 9000.0), "f_min is 9000.0, must be from 0 to below f_max, 8000.0"),
                             ((16000, 400, 80, 0.0, None, "bark"), "scale is 'bark'"),
                             ((16000, 400, 80, 0.0, None, "htk", "area"), "norm is 'area'")]:
        with pytest.raises(ValueError, match=f"^mel_filter_bank: {words}"):
            kevra.mel_filter_bank(*arguments)
