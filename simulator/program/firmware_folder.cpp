#include "simulator/program/firmware_folder.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "hosts/common/text.h"

namespace simulator {

namespace {

constexpr wchar_t kModemImage[] = L"modem.fls";
constexpr wchar_t kNvmImage[] = L"nvm.fls";
/// Listed in this order; the library takes the later one.
constexpr wchar_t kFirstSmallImage[] = L"a.fls";
constexpr wchar_t kSecondSmallImage[] = L"b.fls";

}  // namespace

FirmwareFolder::FirmwareFolder(std::filesystem::path folder, ImageSet images, ImageHolder holder)
    : m_Folder(std::move(folder)) {
  std::filesystem::remove_all(m_Folder);
  if (images == ImageSet::NoFolder) return;
  std::filesystem::create_directories(m_Folder);

  const bool withModem = images == ImageSet::ModemAndNvm || images == ImageSet::ModemOnly ||
                         images == ImageSet::ModemAndEmptyNvm;
  if (withModem) {
    m_Modem = BuildImage(ModemImagePlan());
    Lay(*m_Modem, kModemImage);
  }
  if (images == ImageSet::ModemAndNvm || images == ImageSet::NvmOnly) {
    m_Nvm = BuildImage(NvmImagePlan());
    Lay(*m_Nvm, kNvmImage);
  }
  if (images == ImageSet::TwoSmall) {
    Lay(BuildImage(SmallImagePlan(3)), kFirstSmallImage);
    m_Nvm = BuildImage(SmallImagePlan(4));
    Lay(*m_Nvm, kSecondSmallImage);
  }
  if (images == ImageSet::EmptyOnly || images == ImageSet::ModemAndEmptyNvm) LayEmpty(kNvmImage);
  Hold(holder);
}

void FirmwareFolder::Lay(const FlashImage& image, const wchar_t* name) const {
  if (!SaveImageFile(image, m_Folder / name)) throw std::runtime_error("an image cannot be written");
}

void FirmwareFolder::LayEmpty(const wchar_t* name) const {
  if (!std::ofstream(m_Folder / name)) throw std::runtime_error("an image cannot be written");
}

void FirmwareFolder::Hold(ImageHolder holder) {
  if (holder == ImageHolder::Nobody) return;
  const auto path = m_Folder / (holder == ImageHolder::OwnerOfModem ? kModemImage : kNvmImage);
  const DWORD sharing = holder == ImageHolder::ReaderOfNvm ? FILE_SHARE_READ : 0;
  const HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, sharing, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    throw std::runtime_error("an image cannot be opened: " + hosts::SystemErrorText(::GetLastError()));
  }
  m_Held.reset(file);
}

int FirmwareFolder::ImagesLeft() const {
  std::error_code error;
  const std::filesystem::directory_iterator entries(m_Folder, error);
  if (error) return 0;
  return static_cast<int>(
      std::ranges::count_if(entries, [](const auto& entry) { return entry.path().extension() == L".fls"; }));
}

}  // namespace simulator
