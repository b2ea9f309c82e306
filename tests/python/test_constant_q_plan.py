"""Plans of the constant-Q transform: carried out they give what the transform's definition says."""

import dataclasses
import sys
from pathlib import Path

import kevra
import numpy as np
import pytest

sys.path.append(str(Path(__file__).parents[2] / "python" / "demo"))
import chords
import constant_q_numpy

RATE, HOP = 22050, 512


def by_definition(plan, y, gains):
    """One sum at the signal's own rate for each bin and frame, (n_bins, frames)."""
    reach = int(np.ceil(plan.lengths.max() / 2))
    padded = np.pad(y, reach)
    middles = reach + plan.hop * np.arange(plan.frames(len(y)))
    result = np.empty((plan.n_bins, len(middles)), np.complex128)
    for answer, hertz, length, gain in zip(result, plan.frequencies, plan.lengths, gains):
        m = np.arange(-reach, reach + 1)
        window = np.where(abs(m) < length / 2, 0.5 + 0.5 * np.cos(2 * np.pi * m / length), 0)
        heard = np.flatnonzero(window)
        filtered = (window / window.sum() * np.exp(-2j * np.pi * hertz / plan.sample_rate * m))[heard]
        answer[:] = [padded[middle + m[heard]] @ filtered * gain for middle in middles]
    return result


def away_from_ends(plan, samples):
    """Bins and frames whose filter, and what rings of the decimators, reaches over neither end of the signal."""
    rings = np.empty(plan.n_bins)
    for level, _, _, first, real, _ in plan.octaves:
        rings[first : first + len(real)] = 32 * 2**level if level else 0
    reach = (plan.lengths / 2 + rings)[:, None]
    middles = plan.hop * np.arange(plan.frames(samples))
    return (reach <= middles) & (middles < samples - reach)


def relative(result, exact, where=...):
    return np.linalg.norm((result - exact)[where]) / np.linalg.norm(exact[where])


# rate, hop, bins, bins an octave, lowest bin, filter_scale, samples; then how many levels the plan has.
DESIGNS = {
    "seven octaves": ((RATE, HOP, 84, 12, 32.7, 1.0, 40000), 8),
    "odd hop, all on one level": ((8000, 171, 30, 12, 110.0, 1.0, 6001), 1),
    "hop for two halvings, lowest octave not whole": ((RATE, 300, 67, 24, 220.0, 1.0, 12345), 3),
    "nothing at the signal's own rate": ((48000, 2048, 14, 7, 100.0, 1.0, 40000), 7),
    "short filters": ((11025, 64, 48, 48, 300.0, 0.5, 5000), 3),
    "signal shorter than a filter": ((RATE, 128, 40, 12, 65.4, 1.0, 200), 7),
    "one sample": ((RATE, 64, 24, 12, 440.0, 1.0, 1), 4),
}


@pytest.mark.parametrize("name", DESIGNS)
def test_gives_what_the_definition_says(name):
    (rate, hop, n_bins, bins, f_min, filter_scale, samples), n_levels = DESIGNS[name]
    y = np.random.default_rng(samples).standard_normal(samples)
    shape = {"f_min": f_min, "filter_scale": filter_scale}
    fine = kevra.constant_q_plan(rate, hop, n_bins, bins, **shape, sparsity=0)
    usual = kevra.constant_q_plan(rate, hop, n_bins, bins, **shape)
    loud = kevra.constant_q_plan(rate, hop, n_bins, bins, **shape, scale="amplitude", sparsity=0)
    assert fine.n_levels == n_levels
    np.testing.assert_allclose(fine.frequencies, f_min * 2 ** (np.arange(n_bins) / bins), rtol=1e-12)

    # Left out are the negative frequencies, what folds back into side lobes, and with the usual sparsity a hundredth
    # of each filter. At the ends of the signal a level lacks what would have rung beyond them.
    exact = by_definition(fine, y, np.sqrt(fine.lengths))
    amplitudes = exact * (2 / np.sqrt(fine.lengths))[:, None]
    for plan, wanted, inner_bound in (fine, exact, 1e-3), (loud, amplitudes, 1e-3), (usual, exact, 1e-2):
        result = constant_q_numpy.transform(plan, y[None])[0]
        assert result.shape == wanted.shape and relative(result, wanted) < 0.15
        inner = away_from_ends(plan, samples)
        assert not inner.any() or relative(result, wanted, inner) < inner_bound


@pytest.mark.parametrize("name", DESIGNS)
def test_is_coherent_at_every_length(name):
    (rate, hop, n_bins, bins, f_min, filter_scale, _), _ = DESIGNS[name]
    plan = kevra.constant_q_plan(rate, hop, n_bins, bins, f_min=f_min, filter_scale=filter_scale)
    rows = np.zeros(n_bins, int)
    for level, own_hop, n_fft, first, real, imaginary in plan.octaves:
        assert 0 <= level < plan.n_levels and own_hop << level == hop
        assert real.shape == imaginary.shape == (real.shape[0], n_fft // 2 + 1) and real.dtype == np.float64
        assert (real != 0).any(axis=1).all()
        assert plan.lengths[first] / 2**level <= n_fft
        rows[first : first + len(real)] += 1
    assert (rows == 1).all()
    for samples in [1, 2, hop - 1, hop, hop + 1, *np.random.default_rng(hop).integers(1, 10 * hop, 20)]:
        frames, length = plan.frames(int(samples)), int(samples)
        for level in range(plan.n_levels):
            for own_hop, n_fft in (octave[1:3] for octave in plan.octaves if octave[0] == level):
                assert (length + 2 * (n_fft // 2) - n_fft) // own_hop + 1 >= frames
            length = (length + 1) // 2


@pytest.mark.parametrize("rate, bins", [(RATE, 12), (44100, 36)])
def test_a_tone_peaks_in_its_bin_and_has_its_amplitude_there(rate, bins):
    plan = kevra.constant_q_plan(rate, 4096, 3 * bins, bins, f_min=220.0, scale="amplitude")
    t = np.arange(1 + 2 * 4096 * int(np.ceil(plan.lengths[0] / 8192))) / rate  # the filters fit around the middle frame
    tones = 0.5 * np.sin(2 * np.pi * plan.frequencies[:, None] * t)
    magnitudes = abs(constant_q_numpy.transform(plan, tones)[:, :, plan.frames(len(t)) // 2])
    np.testing.assert_array_equal(magnitudes.argmax(axis=1), np.arange(plan.n_bins))
    assert abs(20 * np.log10(np.diagonal(magnitudes) / 0.5)).max() < 0.02  # decibels


def test_half_band_filter_passes_a_fifth_and_stops_from_three_tenths():
    taps = kevra.half_band_taps()
    n = np.arange(65) - 32
    assert taps[32] == 0.5 and not taps[(n % 2 == 0) & (n != 0)].any()
    np.testing.assert_array_equal(taps, taps[::-1])
    f = np.linspace(0, 0.5, 20001)
    gain = abs(taps @ np.cos(2 * np.pi * np.outer(n, f)))
    assert abs(20 * np.log10(gain[f <= 0.2])).max() < 0.001
    assert 20 * np.log10(gain[f >= 0.3]).max() < -90
    # As far as the levels are used, mirror images included.
    assert abs(20 * np.log10(gain[f <= 0.202])).max() < 0.001 and 20 * np.log10(gain[f >= 0.298]).max() < -90


def test_classes_are_those_of_the_nearest_notes():
    assert list(kevra.constant_q_plan(RATE, HOP, 14).classes) == [*range(12), 0, 1]
    from_a = kevra.constant_q_plan(RATE, HOP, 24, f_min=55.0 * 2 ** (0.4 / 12))
    assert list(from_a.classes) == [one % 12 for one in range(9, 33)]
    thirds = kevra.constant_q_plan(RATE, HOP, 72, 36).classes  # a note and its neighbours a third of a semitone away
    assert list(thirds) == [(k + 1) // 3 % 12 for k in range(72)]
    quarters = kevra.constant_q_plan(RATE, HOP, 48, 24).classes  # half-way between two notes: the upper one
    assert list(quarters) == [(k + 1) // 2 % 12 for k in range(48)]
    assert list(kevra.constant_q_plan(RATE, HOP, 24, n_chroma=6).classes) == [(k + 1) // 2 % 6 for k in range(24)]


def test_a_chord_progression_shows_its_chords():
    plan = kevra.constant_q_plan(RATE, HOP, 252, 36)
    magnitudes = abs(constant_q_numpy.transform(plan, chords.synthesise(RATE)))
    chroma, _ = constant_q_numpy.chroma(plan, magnitudes)
    assert chords.wrong_chords(chroma[0], RATE / HOP) == []
    assert len(chords.wrong_chords(np.roll(chroma[0], 1, axis=0), RATE / HOP)) == len(chords.PROGRESSION)


@pytest.mark.parametrize("dtype, bound", [(np.float32, 1e-6), (np.float64, 1e-13)])
def test_the_operations_take_a_plan_as_it_is(dtype, bound):
    plan = kevra.constant_q_plan(RATE, 64, 20, f_min=440.0)
    y = np.random.default_rng(0).standard_normal((2, 3001)).astype(dtype)
    exact = constant_q_numpy.transform(plan, y)
    result = kevra.cqt_staged(y, *plan.arguments(y.shape[1]), "complex")
    assert result.shape == exact.shape and relative(result, exact) < bound
    folded, _ = constant_q_numpy.chroma(plan, abs(exact))
    chroma = kevra.chroma_staged(y, *plan.chroma_arguments(y.shape[1]))
    assert chroma.shape == folded.shape and relative(chroma, folded) < bound


def test_the_key_stands_for_everything_that_tables_hold():
    plan = kevra.constant_q_plan(RATE, HOP, 24)
    assert kevra.constant_q_plan(RATE, HOP, 24).plan_key == plan.plan_key
    level, hop, n_fft, first, real, imaginary = plan.octaves[1]
    others = [
        dataclasses.replace(plan, taps=plan.taps * (1 + 1e-15)),
        dataclasses.replace(plan, classes=(plan.classes + 1) % 12),
        dataclasses.replace(plan, n_chroma=24),
        dataclasses.replace(plan, octaves=plan.octaves[::-1]),
        dataclasses.replace(plan, octaves=(plan.octaves[0], (level, hop, n_fft, first, real, imaginary + 1e-300))),
        kevra.constant_q_plan(RATE, HOP, 24, sparsity=0.011),
        kevra.constant_q_plan(RATE, HOP, 24, scale="amplitude"),
        kevra.constant_q_plan(RATE, HOP // 2, 24),
    ]
    assert len({plan.plan_key, *(other.plan_key for other in others)}) == 1 + len(others)
    for array in (plan.taps, plan.classes, real, imaginary, others[1].classes):
        with pytest.raises(ValueError, match="read-only"):
            array[...] = 0
    with pytest.raises(dataclasses.FrozenInstanceError):
        plan.taps = plan.taps


def test_bins_go_as_high_as_the_rate_allows():
    plan = kevra.constant_q_plan(RATE, HOP, None)
    q = plan.lengths[0] * plan.frequencies[0] / RATE
    assert plan.frequencies[-1] * (1 + 0.75 / q) <= RATE / 2 < plan.frequencies[-1] * 2 ** (1 / 12) * (1 + 0.75 / q)
    with pytest.raises(ValueError, match=f"n_bins is {plan.n_bins + 1}, must be from 1 to {plan.n_bins}: "):
        kevra.constant_q_plan(RATE, HOP, plan.n_bins + 1)


def test_refusals_name_the_value():
    for arguments, words in [
        ({"sample_rate": 0}, "sample_rate is 0"), ({"sample_rate": float("nan")}, "sample_rate is nan"),
        ({"hop": 0}, "hop is 0, must be at least 1"), ({"n_bins": 0}, "n_bins is 0, must be from 1 to 101"),
        ({"bins_per_octave": 0}, "bins_per_octave is 0"), ({"f_min": -1.0}, "f_min is -1.0"),
        ({"f_min": 20000.0}, "f_min is 20000.0 Hz, must be at most 10567.7 Hz"),
        ({"filter_scale": 0}, "filter_scale is 0"), ({"scale": "l1"}, "scale is 'l1'"),
        ({"sparsity": 1.0}, "sparsity is 1.0"), ({"n_chroma": 0}, "n_chroma is 0"),
    ]:
        with pytest.raises(ValueError, match=f"^constant_q_plan: {words}"):
            kevra.constant_q_plan(**{"sample_rate": RATE, "hop": HOP} | arguments)
    with pytest.raises(TypeError):
        kevra.constant_q_plan(RATE, 512.5)
    with pytest.raises(ValueError, match="samples is 0, must be at least 1"):
        kevra.constant_q_plan(RATE, HOP).arguments(0)
