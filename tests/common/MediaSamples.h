// Media files made by ffmpeg.exe itself from its lavfi sources, on first use, and kept
// in a folder under the temp folder across runs (a file is named after its recipe, so
// a changed recipe makes a new file). Nothing binary lives in the repository.
#pragma once

#include <string>

namespace kltest {

// The full path of the sample Name; raises std::runtime_error when ffmpeg fails or the
// name is unknown. Names:
//   h264_aac.mp4     1280x720 H.264 25 fps, 10 s, AAC stereo 44100 Hz (9.9 s)
//   two_audio.mkv    320x240 MPEG-4 25 fps, 3 s; MP3 mono 22050 Hz; AC-3 5.1 48000 Hz (eng)
//   hd_1080.mp4      1920x1080 H.264 25 fps, 0.4 s (10 frames), no sound
//   odd_718.mkv      1280x718 MPEG-4 25 fps, 1 s, no sound
//   surround71.mka   FLAC 7.1 44100 Hz, 2 s
//   tone.mp3         MP3 mono 44100 Hz, 2 s
//   tone.wav         PCM stereo 44100 Hz, 2 s
//   picture.png      one 320x240 picture
//   ntsc_minute.mkv  160x120 MPEG-4 29.97 fps, 60 s, PCM mono
std::string MediaSample(const std::string& Name);

}  // namespace kltest
